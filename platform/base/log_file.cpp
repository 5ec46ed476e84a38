#include "log_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

namespace kembase {

namespace {

// Logs hold what applications did (URLs, command lines): root and the
// agent's group only, whatever the umask.
constexpr mode_t kLogMode = 0640;

wl::UniqueFd openAppend(const std::string& path) {
    wl::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kLogMode));
    if (fd.valid()) ::fchmod(fd.get(), kLogMode);
    return fd;
}

void writeAll(int fd, const char* data, size_t len) {
    while (len > 0) {
        ssize_t n = ::write(fd, data, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;  // a full disk must not stop the caller
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
}

}  // namespace

std::shared_ptr<LogFile> LogFile::open(const std::string& path) {
    wl::UniqueFd fd = openAppend(path);
    if (!fd.valid()) return nullptr;
    struct stat st {};
    long size = ::fstat(fd.get(), &st) == 0 ? static_cast<long>(st.st_size) : 0;
    return std::make_shared<LogFile>(path, std::move(fd), size);
}

LogFile::LogFile(std::string path, wl::UniqueFd fd, long size)
    : m_path(std::move(path)), m_fd(std::move(fd)), m_size(size) {}

void LogFile::write(const char* data, size_t len, long maxSize) {
    std::lock_guard<std::mutex> guard(m_lock);
    // Rotate before the line that would cross the limit, so a file only
    // outgrows it by a single line longer than the limit itself.
    if (m_size > 0 && m_size + static_cast<long>(len) > maxSize) rotate();
    if (!m_fd.valid()) return;
    writeAll(m_fd.get(), data, len);
    m_size += static_cast<long>(len);
}

void LogFile::rotate() {
    std::string old = m_path + ".1";
    ::rename(m_path.c_str(), old.c_str());
    // Even when the rename failed (directory gone), start a fresh count so
    // that every line does not retry the rotation.
    wl::UniqueFd fd = openAppend(m_path);
    if (fd.valid()) m_fd = std::move(fd);
    m_size = 0;
}

}  // namespace kembase
