#include "forked_peer.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

namespace {
bool write_all(int fd, const std::string& text) {
    size_t sent = 0;
    while (sent < text.size()) {
        ssize_t n = ::write(fd, text.data() + sent, text.size() - sent);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}
}  // namespace

ForkedPeer::ForkedPeer(std::function<std::string()> body, Options options) {
    int report[2];
    int release[2];
    if (::pipe2(report, O_CLOEXEC) != 0) return;
    if (::pipe2(release, O_CLOEXEC) != 0) {
        ::close(report[0]);
        ::close(report[1]);
        return;
    }
    m_pid = ::fork();
    if (m_pid == 0) {
        ::close(report[0]);
        ::close(release[1]);
        std::string text;
        if (options.as_nobody && (::setgroups(0, nullptr) != 0 || ::setresgid(kNobody, kNobody, kNobody) != 0 ||
                                  ::setresuid(kNobody, kNobody, kNobody) != 0)) {
            text = "<could not become nobody>";
        } else {
            text = body();
        }
        write_all(report[1], text);
        ::close(report[1]);
        if (options.hold) {
            char byte;
            while (::read(release[0], &byte, 1) < 0 && errno == EINTR) {
            }
        }
        ::_exit(0);
    }
    ::close(report[1]);
    ::close(release[0]);
    m_reportFd = report[0];
    m_releaseFd = release[1];
}

ForkedPeer::~ForkedPeer() {
    release();
    if (m_pid > 0) {
        // A body stuck past its report is ended: the test is over.
        for (int i = 0; i < 500; ++i) {
            if (::waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
                m_pid = -1;
                break;
            }
            ::usleep(10000);
        }
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    if (m_reportFd >= 0) ::close(m_reportFd);
}

std::string ForkedPeer::report(std::chrono::milliseconds timeout) {
    if (m_reported) return m_report;
    if (m_reportFd < 0) return "<no report>";
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string text;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return "<no report>";
        pollfd fd = {m_reportFd, POLLIN, 0};
        if (::poll(&fd, 1, static_cast<int>(left.count())) <= 0) continue;
        char buffer[4096];
        ssize_t n = ::read(m_reportFd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        text.append(buffer, static_cast<size_t>(n));
    }
    m_reported = true;
    m_report = text;
    return text;
}

void ForkedPeer::release() {
    if (m_releaseFd >= 0) {
        ::close(m_releaseFd);
        m_releaseFd = -1;
    }
}

int peer_connect(const std::string& path) {
    sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) return -1;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

std::string peer_read_until_closed(int fd, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string got;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return "open:" + got;
        pollfd p = {fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        char buffer[4096];
        ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return "closed:" + got;
        got.append(buffer, static_cast<size_t>(n));
    }
}
