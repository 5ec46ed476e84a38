#include "collector_client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "unix_socket.h"
#include "vrccl_wire.h"

namespace wlctl {
namespace {

std::string connectProblem(int err, const std::string& path) {
    switch (err) {
        case ENOENT: return "no collector socket at " + path + " (is wl-agent running with its collector?)";
        case ECONNREFUSED: return "no collector listens on " + path + " (is wl-agent running with its collector?)";
        case EACCES: return "no permission to reach " + path + " (run as root)";
        case EAGAIN: return "the collector at " + path + " accepts no connection";
        default: return "cannot connect to " + path + ": " + std::strerror(err);
    }
}

std::string peerProblem(int fd) {
    ucred cred;
    socklen_t len = sizeof(cred);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return "cannot read the collector's credentials";
    if (cred.uid != 0 && cred.uid != ::geteuid()) {
        return "refusing a collector run by uid " + std::to_string(cred.uid) + " (neither root nor you)";
    }
    return "";
}

// One frame of at most VRCCL_MAX_BODY bytes.
std::string readFrame(int fd, wlsock::Deadline deadline, vrccl_frame_head& head, std::vector<char>& body) {
    wlsock::IoResult rc = wlsock::read_exact(fd, &head, sizeof(head), -1, deadline);
    if (rc == wlsock::IoResult::Timeout) return "the collector did not answer in time";
    if (rc != wlsock::IoResult::Ok) return "the collector closed the connection";
    if (head.magic != VRCCL_MAGIC || head.length > VRCCL_MAX_BODY) return "the collector speaks another protocol";
    body.assign(head.length, '\0');
    rc = wlsock::read_exact(fd, body.data(), body.size(), -1, deadline);
    return rc == wlsock::IoResult::Ok ? "" : "the collector's answer was cut short";
}

}  // namespace

CollectorReply queryCollector(const std::string& socketPath, int timeoutMs) {
    CollectorReply reply;
    sockaddr_un addr;
    if (!wlsock::fill_address(socketPath, &addr)) {
        reply.error = "socket path too long: " + socketPath;
        return reply;
    }
    wl::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    timeval tv = {timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));  // bounds connect
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        reply.error = connectProblem(errno, socketPath);
        return reply;
    }
    reply.error = peerProblem(fd.get());
    if (!reply.error.empty()) return reply;

    wlsock::Deadline deadline = wlsock::deadline_in(timeoutMs);
    vrccl_frame_head head;
    std::vector<char> body;
    reply.error = readFrame(fd.get(), deadline, head, body);
    if (reply.error.empty() && (head.kind != VRCCL_HELLO || body.size() < sizeof(vrccl_hello))) {
        reply.error = "the collector did not greet";
    }
    if (!reply.error.empty()) return reply;
    vrccl_hello hello;
    std::memcpy(&hello, body.data(), sizeof(hello));
    reply.version = hello.version;
    reply.pid = hello.collector_pid;
    reply.backend.assign(hello.backend, strnlen(hello.backend, sizeof(hello.backend)));

    vrccl_frame_head request = {VRCCL_MAGIC, VRCCL_STATUS_REQ, 0, 0};
    if (wlsock::write_all(fd.get(), &request, sizeof(request), -1, deadline) != wlsock::IoResult::Ok) {
        reply.error = "cannot send the status request";
        return reply;
    }
    for (;;) {  // other frames may precede the answer
        reply.error = readFrame(fd.get(), deadline, head, body);
        if (!reply.error.empty()) return reply;
        if (head.kind == VRCCL_STATUS) break;
    }
    reply.statusJson.assign(body.begin(), body.end());
    return reply;
}

}  // namespace wlctl
