#include "socket_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace {

int connect_path(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool send_all(int fd, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

int ms_until(std::chrono::steady_clock::time_point end) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

enum class Got { Data, Closed, Timeout };

Got read_some(int fd, std::string* out, size_t most, std::chrono::steady_clock::time_point end) {
    char buf[4096];
    pollfd pfd{fd, POLLIN, 0};
    if (::poll(&pfd, 1, ms_until(end)) <= 0) return Got::Timeout;
    ssize_t n = ::recv(fd, buf, most < sizeof(buf) ? most : sizeof(buf), 0);
    if (n <= 0) return Got::Closed;  // a reset counts: the server let go either way
    out->append(buf, static_cast<size_t>(n));
    return Got::Data;
}

}  // namespace

std::string socket_exchange(const std::string& path, const std::string& bytes) {
    int fd = connect_path(path);
    if (fd < 0) return "<connect failed>";
    send_all(fd, bytes);
    std::string answer;
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (read_some(fd, &answer, 4096, end) == Got::Data) {
    }
    ::close(fd);
    return answer;
}

SocketPeer::SocketPeer(const std::string& path) : m_fd(connect_path(path)) {}

SocketPeer::~SocketPeer() {
    if (m_fd >= 0) ::close(m_fd);
}

bool SocketPeer::send(const std::string& bytes) { return m_fd >= 0 && send_all(m_fd, bytes); }

void SocketPeer::hangUp() {
    if (m_fd >= 0) ::shutdown(m_fd, SHUT_WR);
}

bool SocketPeer::readUntilClosed(std::string* received, std::chrono::milliseconds deadline) {
    if (m_fd < 0) return false;
    auto end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        Got got = read_some(m_fd, received, 4096, end);
        if (got != Got::Data) return got == Got::Closed;
    }
}

bool SocketPeer::readExact(size_t n, std::string* received, std::chrono::milliseconds deadline) {
    if (m_fd < 0) return false;
    auto end = std::chrono::steady_clock::now() + deadline;
    size_t target = received->size() + n;
    while (received->size() < target) {
        if (read_some(m_fd, received, target - received->size(), end) != Got::Data) return false;
    }
    return true;
}
