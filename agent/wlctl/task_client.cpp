#include "task_client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kem_result.h"
#include "wl_unique_fd.h"

namespace wlctl {
namespace {

std::string connectUnix(wl::UniqueFd& sock, const std::string& path) {
    if (sock.get() < 0) return std::string("socket: ") + std::strerror(errno);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return "socket path too long: " + path;
    std::strcpy(addr.sun_path, path.c_str());
    if (::connect(sock.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
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
    wl::UniqueFd sock(::socket(AF_UNIX, SOCK_STREAM, 0));
    result.error = connectUnix(sock, socketPath);
    if (!result.error.empty()) return result;
    timeval tv{timeoutSeconds, 0};
    ::setsockopt(sock.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    if (!writeAll(sock.get(), handler + " " + std::to_string(json.size()) + "\n" + json)) {
        result.error = std::string("write: ") + std::strerror(errno);
        return result;
    }
    std::string reply;
    char c;
    while (reply.size() < 256) {
        ssize_t n = ::read(sock.get(), &c, 1);
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
    wl::UniqueFd sock(::socket(AF_UNIX, SOCK_STREAM, 0));
    std::string error = connectUnix(sock, socketPath);
    if (!error.empty()) return error;
    return writeAll(sock.get(), json + "\n") ? "" : std::string("write: ") + std::strerror(errno);
}

std::string describeCode(uint32_t code) {
    switch (code) {
        case 0: return "done";
        case KEM_E_FAIL: return "refused or failed";
        case KEM_E_INVALIDARG: return "invalid parameter";
        default: return "unknown code";
    }
}

}  // namespace wlctl
