// Crash-safe replacement of a file: write beside it, sync, rename, sync the
// directory. Without the directory sync the rename itself may be lost.
#include "atomic_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "wl_unique_fd.h"

namespace {

bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

std::string parentOf(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

// Removes the temporary file without disturbing the errno of the failure.
int failWith(const std::string& temp, int err) {
    ::unlink(temp.c_str());
    errno = err;
    return -1;
}

}  // namespace

extern "C" int file_sync_parent_dir(const char* path) {
    if (!path || !*path) {
        errno = EINVAL;
        return -1;
    }
    wl::UniqueFd dir(::open(parentOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.valid()) return -1;
    return ::fsync(dir.get()) == 0 ? 0 : -1;
}

namespace {

// Runs fill on "<path>.tmp" and puts the result in place, or leaves nothing.
template <typename Fill>
int replaceThrough(const char* path, unsigned int mode, Fill fill) {
    const std::string temp = std::string(path) + ".tmp";
    {
        // O_NOFOLLOW: a link planted at the temporary name is not written through.
        wl::UniqueFd fd(
            ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, static_cast<mode_t>(mode)));
        if (!fd.valid()) return -1;
        // A temporary file left by a crash keeps its old mode unless told.
        if (::fchmod(fd.get(), static_cast<mode_t>(mode)) != 0 || !fill(fd.get()) || ::fsync(fd.get()) != 0) {
            return failWith(temp, errno);
        }
        if (::close(fd.release()) != 0) return failWith(temp, errno);
    }
    if (::rename(temp.c_str(), path) != 0) return failWith(temp, errno);
    return file_sync_parent_dir(path);
}

}  // namespace

extern "C" int file_write_atomic(const char* path, const void* data, size_t size, unsigned int mode) {
    if (!path || !*path || (!data && size > 0)) {
        errno = EINVAL;
        return -1;
    }
    return replaceThrough(path, mode, [&](int fd) { return writeAll(fd, static_cast<const char*>(data), size); });
}

extern "C" int file_copy_atomic(const char* src, const char* path, unsigned int mode, unsigned long long* copied) {
    if (copied) *copied = 0;
    if (!src || !*src || !path || !*path) {
        errno = EINVAL;
        return -1;
    }
    wl::UniqueFd in(::open(src, O_RDONLY | O_CLOEXEC));
    struct stat st;
    if (!in.valid() || ::fstat(in.get(), &st) != 0) return -1;
    if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    unsigned long long total = 0;
    const int rc = replaceThrough(path, mode, [&](int fd) {
        char buf[65536];
        for (;;) {
            const ssize_t n = ::read(in.get(), buf, sizeof buf);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return false;
            if (n == 0) return true;
            if (!writeAll(fd, buf, static_cast<size_t>(n))) return false;
            total += static_cast<unsigned long long>(n);
        }
    });
    if (rc == 0 && copied) *copied = total;
    return rc;
}
