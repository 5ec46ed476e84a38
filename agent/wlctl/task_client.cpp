#include "task_client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace wlctl {
namespace {

class Socket {
public:
    explicit Socket(int fd) : m_fd(fd) {}
    ~Socket() {
        if (m_fd >= 0) ::close(m_fd);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd() const { return m_fd; }

private:
    int m_fd;
};

std::string connectUnix(Socket& sock, const std::string& path) {
    if (sock.fd() < 0) return std::string("socket: ") + std::strerror(errno);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return "socket path too long: " + path;
    std::strcpy(addr.sun_path, path.c_str());
    if (::connect(sock.fd(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
        return "cannot connect to " + path + ": " + std::strerror(errno) + " (is wl-agent running?)";
    return "";
}

bool writeAll(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

PushResult pushTask(const std::string& socketPath, const std::string& handler, const std::string& json,
                    int timeoutSeconds) {
    PushResult result;
    Socket sock(::socket(AF_UNIX, SOCK_STREAM, 0));
    result.error = connectUnix(sock, socketPath);
    if (!result.error.empty()) return result;
    timeval tv{timeoutSeconds, 0};
    ::setsockopt(sock.fd(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    if (!writeAll(sock.fd(), handler + " " + std::to_string(json.size()) + "\n" + json)) {
        result.error = std::string("write: ") + std::strerror(errno);
        return result;
    }
    std::string reply;
    char c;
    while (reply.size() < 256) {
        ssize_t n = ::read(sock.fd(), &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || c == '\n') break;
        reply += c;
    }
    if (reply.empty()) {
        result.error = "no answer within " + std::to_string(timeoutSeconds) + " s";
    } else if (reply.rfind("ERR", 0) == 0) {
        result.error = reply;
    } else {
        result.delivered = true;
        result.code = static_cast<uint32_t>(std::strtoul(reply.c_str(), nullptr, 10));
    }
    return result;
}

std::string sendTelemetry(const std::string& socketPath, const std::string& json) {
    Socket sock(::socket(AF_UNIX, SOCK_STREAM, 0));
    std::string error = connectUnix(sock, socketPath);
    if (!error.empty()) return error;
    return writeAll(sock.fd(), json + "\n") ? "" : std::string("write: ") + std::strerror(errno);
}

std::string describeCode(uint32_t code) {
    switch (code) {
        case 0: return "done";
        case 0x84ce0001u: return "refused or failed";
        case 0x84ce0002u: return "invalid parameter";
        default: return "unknown code";
    }
}

}  // namespace wlctl
