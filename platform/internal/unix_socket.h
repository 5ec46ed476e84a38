// Unix stream socket helpers shared by the task-push and IPC transports:
// an owned descriptor, a wake-up descriptor for stopping threads, listening
// and connecting by path, and reads and writes with a deadline.
#ifndef WL_UNIX_SOCKET_H
#define WL_UNIX_SOCKET_H

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <utility>

#include "dirutils.h"
#include "peer_cred.h"
#include "socket_dir.h"

#include "wl_unique_fd.h"

namespace wlsock {

// Readable once signalled; threads poll it beside their sockets to stop.
class WakeFd {
public:
    WakeFd() : m_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    bool valid() const { return m_fd.valid(); }
    int get() const { return m_fd.get(); }
    void signal() {
        unsigned long long one = 1;
        ssize_t rc = ::write(m_fd.get(), &one, sizeof(one));
        (void)rc;
    }

private:
    wl::UniqueFd m_fd;
};

// "@" paths are turned into real ones; the result is empty on failure.
inline std::string resolve_path(const std::string& pattern) {
    char buf[4096] = {0};
    if (dirutils_path_transform(pattern.c_str(), buf, sizeof(buf)) != 0) return std::string();
    return buf;
}

inline bool fill_address(const std::string& path, sockaddr_un* addr) {
    std::memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(addr->sun_path)) return false;
    std::memcpy(addr->sun_path, path.c_str(), path.size());
    return true;
}

// Connects to a listening socket; invalid on failure with *err set. A
// listener that is neither root nor the agent's own user is refused
// (EPERM): it is not the agent's, whatever its path says.
inline wl::UniqueFd connect_to(const std::string& path, int* err) {
    sockaddr_un addr;
    if (!fill_address(path, &addr)) {
        *err = ENAMETOOLONG;
        return wl::UniqueFd();
    }
    wl::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        *err = errno;
        return wl::UniqueFd();
    }
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        *err = errno;
        return wl::UniqueFd();
    }
    PeerCred server;
    if (!trusted_peer(fd.get(), &server)) {
        *err = EPERM;
        return wl::UniqueFd();
    }
    *err = 0;
    return fd;
}

// True when something answers at path: a live socket is never replaced.
inline bool someone_listens(const std::string& path) {
    sockaddr_un addr;
    if (!fill_address(path, &addr)) return false;
    wl::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return fd.valid() && ::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
}

// Listens at path with the given mode, and the given group when it isn't
// -1. The directory is made and checked (secure_socket_dir); a stale socket
// left by a dead process is replaced, a live one is not (EADDRINUSE).
inline wl::UniqueFd listen_at(const std::string& path, mode_t mode, int* err, gid_t group = static_cast<gid_t>(-1)) {
    sockaddr_un addr;
    if (!fill_address(path, &addr)) {
        *err = ENAMETOOLONG;
        return wl::UniqueFd();
    }
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0) {
        *err = EINVAL;
        return wl::UniqueFd();
    }
    *err = secure_socket_dir(path.substr(0, slash));
    if (*err != 0) return wl::UniqueFd();
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            *err = EEXIST;
            return wl::UniqueFd();
        }
        if (someone_listens(path)) {
            *err = EADDRINUSE;
            return wl::UniqueFd();
        }
        ::unlink(path.c_str());
    }
    wl::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        *err = errno;
        return wl::UniqueFd();
    }
    // On Linux the socket's own mode becomes the file's mode at bind, so the
    // file is never reachable with wider rights; chmod afterwards to be sure.
    ::fchmod(fd.get(), mode & 0700);
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        *err = errno;
        return wl::UniqueFd();
    }
    if ((group != static_cast<gid_t>(-1) && ::chown(path.c_str(), static_cast<uid_t>(-1), group) != 0) ||
        ::chmod(path.c_str(), mode) != 0 || ::listen(fd.get(), 64) != 0) {
        *err = errno;
        ::unlink(path.c_str());
        return wl::UniqueFd();
    }
    *err = 0;
    return fd;
}

enum class IoResult { Ok, Closed, Timeout, Stopped, Error };

using Deadline = std::chrono::steady_clock::time_point;

inline Deadline deadline_in(int ms) { return std::chrono::steady_clock::now() + std::chrono::milliseconds(ms); }

inline int ms_left(Deadline deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Waits until fd has the events, the stop descriptor (-1: none) is
// signalled, or the deadline passes.
inline IoResult wait_for(int fd, short events, int stop_fd, Deadline deadline) {
    for (;;) {
        pollfd fds[2] = {{fd, events, 0}, {stop_fd, POLLIN, 0}};
        int rc = ::poll(fds, stop_fd >= 0 ? 2 : 1, ms_left(deadline));
        if (rc < 0) {
            if (errno == EINTR) continue;
            return IoResult::Error;
        }
        if (rc == 0) return IoResult::Timeout;
        if (stop_fd >= 0 && (fds[1].revents & POLLIN)) return IoResult::Stopped;
        return IoResult::Ok;
    }
}

inline IoResult read_exact(int fd, void* buf, size_t size, int stop_fd, Deadline deadline) {
    char* out = static_cast<char*>(buf);
    size_t got = 0;
    while (got < size) {
        IoResult ready = wait_for(fd, POLLIN, stop_fd, deadline);
        if (ready != IoResult::Ok) return ready;
        ssize_t n = ::recv(fd, out + got, size - got, MSG_DONTWAIT);
        if (n == 0) return IoResult::Closed;
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
            return errno == ECONNRESET ? IoResult::Closed : IoResult::Error;
        }
        got += static_cast<size_t>(n);
    }
    return IoResult::Ok;
}

inline IoResult write_all(int fd, const void* buf, size_t size, int stop_fd, Deadline deadline) {
    const char* in = static_cast<const char*>(buf);
    size_t sent = 0;
    while (sent < size) {
        IoResult ready = wait_for(fd, POLLOUT, stop_fd, deadline);
        if (ready != IoResult::Ok) return ready;
        ssize_t n = ::send(fd, in + sent, size - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
            return (errno == EPIPE || errno == ECONNRESET) ? IoResult::Closed : IoResult::Error;
        }
        sent += static_cast<size_t>(n);
    }
    return IoResult::Ok;
}

}  // namespace wlsock

#endif
