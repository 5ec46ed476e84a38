#include "control_server.h"

#include <cstdio>
#include <cstring>

#include "peer_cred.h"

namespace wlagent {

namespace {

std::string errorLine(const std::string& code, const std::string& sentence) {
    std::string out = "{\"ok\":false,\"code\":\"" + code + "\",\"error\":\"";
    for (char c : sentence) {
        if (c == '"' || c == '\\') out += '\\';
        if (static_cast<unsigned char>(c) >= 0x20) out += c;
    }
    return out + "\"}";
}

}  // namespace

ControlServer::ControlServer(Handler handler, ControlServerLimits limits)
    : m_handler(std::move(handler)), m_limits(limits) {}

ControlServer::~ControlServer() { m_listener.stop(); }

std::string ControlServer::start(const std::string& path) {
    const int err = m_listener.start(
        path, 0600, [this](int fd) { return admit(fd); },
        [](const char* what) { std::fprintf(stderr, "wl-agent: control socket: %s\n", what); });
    return err == 0 ? "" : "cannot listen on " + path + ": " + std::strerror(err);
}

wlsock::ThreadedListener::Serve ControlServer::admit(int fd) {
    wlsock::PeerCred peer;
    if (!wlsock::trusted_peer(fd, &peer)) {
        ++m_refusedPeers;
        reply(fd, errorLine("forbidden", "only root and the agent's own user may use this socket"));
        return nullptr;
    }
    if (m_listener.active() >= m_limits.maxClients) {
        ++m_refusedBusy;
        reply(fd, errorLine("busy", "the agent serves too many control connections; try again"));
        return nullptr;
    }
    return [this](wl::UniqueFd client) { serve(std::move(client)); };
}

void ControlServer::reply(int fd, const std::string& line) {
    std::string out = line + "\n";
    wlsock::write_all(fd, out.data(), out.size(), m_listener.stop_fd(), wlsock::deadline_in(m_limits.replyMs));
}

void ControlServer::serve(wl::UniqueFd fd) {
    std::string request;
    const wlsock::Deadline deadline = wlsock::deadline_in(m_limits.idleMs);
    char chunk[4096];
    for (;;) {
        size_t newline = request.find('\n');
        if (newline != std::string::npos && newline <= m_limits.maxRequest) {
            request.resize(newline);
            break;
        }
        if (request.size() > m_limits.maxRequest) {
            ++m_badRequests;
            reply(fd.get(), errorLine("too_large",
                                      "the request is larger than " + std::to_string(m_limits.maxRequest) + " bytes"));
            return;
        }
        wlsock::IoResult ready = wlsock::wait_for(fd.get(), POLLIN, m_listener.stop_fd(), deadline);
        if (ready != wlsock::IoResult::Ok) return;  // idle, stopped or gone: nothing was asked
        ssize_t n = ::recv(fd.get(), chunk, sizeof chunk, MSG_DONTWAIT);
        if (n == 0) {
            if (request.empty()) return;
            break;  // the client may close its side instead of sending a newline
        }
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
            return;
        }
        request.append(chunk, static_cast<size_t>(n));
    }
    if (!request.empty() && request.back() == '\r') request.pop_back();
    std::string answer = m_handler(request);
    if (answer.find('\n') != std::string::npos)
        answer = errorLine("internal", "the agent made a reply of several lines");
    reply(fd.get(), answer);
}

}  // namespace wlagent
