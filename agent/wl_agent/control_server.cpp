#include "control_server.h"

#include <cstring>

namespace wlagent {

bool trustedPeer(uid_t peer, uid_t own) { return peer == 0 || peer == own; }

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

ControlServer::~ControlServer() {
    m_stopping = true;
    m_stop.signal();
    if (m_acceptor.joinable()) m_acceptor.join();
    for (Client& client : m_clients) client.thread.join();
    if (m_listen.valid()) ::unlink(m_path.c_str());
}

std::string ControlServer::start(const std::string& path) {
    if (!m_stop.valid()) return "cannot make a wake-up descriptor";
    int err = 0;
    m_listen = wlsock::listen_at(path, 0600, &err);
    if (!m_listen.valid()) return "cannot listen on " + path + ": " + std::strerror(err);
    m_path = path;
    m_acceptor = std::thread(&ControlServer::acceptLoop, this);
    return "";
}

void ControlServer::reapFinished() {
    for (auto it = m_clients.begin(); it != m_clients.end();) {
        if (it->finished->load()) {
            it->thread.join();
            it = m_clients.erase(it);
        } else {
            ++it;
        }
    }
}

void ControlServer::acceptLoop() {
    const uid_t own = ::geteuid();
    while (!m_stopping) {
        pollfd fds[2] = {{m_listen.get(), POLLIN, 0}, {m_stop.get(), POLLIN, 0}};
        int rc = ::poll(fds, 2, 1000);
        reapFinished();
        if (rc <= 0 || (fds[1].revents & POLLIN)) continue;
        wl::UniqueFd client(::accept4(m_listen.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!client.valid()) continue;
        ucred cred{};
        socklen_t len = sizeof cred;
        if (::getsockopt(client.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || !trustedPeer(cred.uid, own)) {
            ++m_refusedPeers;
            reply(client.get(), errorLine("forbidden", "only root and the agent's own user may use this socket"));
            continue;
        }
        if (m_clients.size() >= m_limits.maxClients) {
            ++m_refusedBusy;
            reply(client.get(), errorLine("busy", "the agent serves too many control connections; try again"));
            continue;
        }
        auto finished = std::make_shared<std::atomic<bool>>(false);
        auto body = [this, finished](wl::UniqueFd fd) {
            serve(std::move(fd));
            finished->store(true);
        };
        m_clients.push_back(Client{std::thread(body, std::move(client)), finished});
    }
}

void ControlServer::reply(int fd, const std::string& line) {
    std::string out = line + "\n";
    wlsock::write_all(fd, out.data(), out.size(), m_stop.get(), wlsock::deadline_in(m_limits.replyMs));
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
        wlsock::IoResult ready = wlsock::wait_for(fd.get(), POLLIN, m_stop.get(), deadline);
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
