#include "file_sink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "dirutils.h"
#include "spool_state.h"

namespace wlforward {
namespace {

std::string parentOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

}  // namespace

FileSink::FileSink(FileSinkSettings settings) : m_settings(std::move(settings)) {}

FileSink::~FileSink() {
    if (m_fd >= 0) ::close(m_fd);
}

bool FileSink::openFile(std::string& error) {
    if (m_fd >= 0) return true;
    if (dirutils_mkdir(parentOf(m_settings.path).c_str(), 0750) != 0) {
        error = "cannot create " + parentOf(m_settings.path);
        return false;
    }
    m_fd = ::open(m_settings.path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    struct stat st;
    if (m_fd < 0 || ::fstat(m_fd, &st) != 0) {
        error = "cannot open " + m_settings.path + ": " + std::strerror(errno);
        return false;
    }
    m_size = static_cast<uint64_t>(st.st_size);
    return true;
}

SendResult FileSink::send(const std::vector<Report>& batch) {
    SendResult result;
    if (!openFile(result.error)) return result;
    if (m_size > 0 && m_size >= m_settings.maxBytes) {
        // The old copy was delivered already; one generation is kept.
        ::close(m_fd);
        m_fd = -1;
        std::rename(m_settings.path.c_str(), (m_settings.path + ".1").c_str());
        if (!openFile(result.error)) return result;
    }
    std::string text;
    for (const Report& r : batch) {
        text += *r.text;
        text += '\n';
    }
    const char* p = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = ::write(m_fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            result.error = "cannot write " + m_settings.path + ": " + std::strerror(errno);
            // A part written is sent again whole: at least once.
            ::close(m_fd);
            m_fd = -1;
            return result;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    if (::fdatasync(m_fd) != 0) {
        result.error = "cannot sync " + m_settings.path + ": " + std::strerror(errno);
        return result;
    }
    m_size += text.size();
    result.delivered = batch.size();
    return result;
}

SendResult FileSink::sendFile(const Upload& file) {
    SendResult result;
    std::string dir = m_settings.filesDir + "/kind" + std::to_string(file.entry.kind);
    if (dirutils_mkdir(dir.c_str(), 0750) != 0) {
        result.error = "cannot create " + dir;
        return result;
    }
    uint64_t size = 0;
    if (!wlspool::copyFileAtomic(file.path, dir + "/" + file.entry.name, size, result.error)) return result;
    result.delivered = 1;
    return result;
}

}  // namespace wlforward
