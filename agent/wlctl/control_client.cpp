#include "control_client.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "unix_socket.h"

namespace wlctl {
namespace {

ControlReply fail(Exit code, const std::string& error) {
    ControlReply reply;
    reply.failure = code;
    reply.error = error;
    return reply;
}

}  // namespace

ControlReply askAgent(const std::string& socketPath, const std::string& request, int timeoutMs) {
    sockaddr_un addr;
    if (!wlsock::fill_address(socketPath, &addr)) return fail(kExitUsage, "socket path too long: " + socketPath);
    wl::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) return fail(kExitAgentError, std::string("socket: ") + std::strerror(errno));
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        int err = errno;
        if (err == EACCES || err == EPERM)
            return fail(kExitForbidden,
                        "no permission to reach " + socketPath + " (run as root or as the agent's user)");
        return fail(kExitUnreachable, "no agent answers at " + socketPath + " (" + std::strerror(err) +
                                          "; is wl-agent running with this root?)");
    }
    ucred cred{};
    socklen_t len = sizeof cred;
    if (::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0)
        return fail(kExitAgentError, "cannot read the agent's credentials");
    if (cred.uid != 0 && cred.uid != ::geteuid())
        return fail(kExitForbidden,
                    "refusing an agent socket run by uid " + std::to_string(cred.uid) + " (neither root nor you)");

    wlsock::Deadline deadline = wlsock::deadline_in(timeoutMs);
    std::string line = request + "\n";
    // An agent that refuses the connection (busy, forbidden) answers and closes
    // at once, possibly before the request is written: its answer still counts.
    bool sent = wlsock::write_all(fd.get(), line.data(), line.size(), -1, deadline) == wlsock::IoResult::Ok;
    ControlReply reply;
    char chunk[65536];
    for (;;) {
        size_t newline = reply.json.find('\n');
        if (newline != std::string::npos) {
            reply.json.resize(newline);
            return reply;
        }
        if (reply.json.size() > kMaxControlReply) return fail(kExitAgentError, "the agent's answer is too large");
        wlsock::IoResult ready = wlsock::wait_for(fd.get(), POLLIN, -1, deadline);
        if (ready == wlsock::IoResult::Timeout) return fail(kExitUnreachable, "the agent did not answer in time");
        if (ready != wlsock::IoResult::Ok) return fail(kExitUnreachable, "the agent's connection failed");
        ssize_t n = ::recv(fd.get(), chunk, sizeof chunk, MSG_DONTWAIT);
        if (n == 0 && !sent) return fail(kExitUnreachable, "the agent did not take the request");
        if (n == 0) return fail(kExitUnreachable, "the agent closed the connection without an answer");
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            if (!sent) return fail(kExitUnreachable, "the agent did not take the request");
            return fail(kExitUnreachable, std::string("reading the answer: ") + std::strerror(errno));
        }
        reply.json.append(chunk, static_cast<size_t>(n));
    }
}

}  // namespace wlctl
