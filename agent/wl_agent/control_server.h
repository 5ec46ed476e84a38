// The agent's control socket <root>/var/run/wl-agent.sock: one request line
// in, one reply line out, per connection. Only root and the agent's own user
// are served; connections, request size and idle time are bounded.
#ifndef WL_AGENT_CONTROL_SERVER_H
#define WL_AGENT_CONTROL_SERVER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "unix_socket.h"

namespace wlagent {

struct ControlServerLimits {
    size_t maxClients = 8;
    size_t maxRequest = 64 * 1024;
    int idleMs = 5000;    // to send the whole request
    int replyMs = 10000;  // to take the whole reply
};

class ControlServer {
public:
    // Turns one request line into one reply line (no newline in either).
    using Handler = std::function<std::string(const std::string&)>;

    ControlServer(Handler handler, ControlServerLimits limits = ControlServerLimits());
    ~ControlServer();  // stops, joins, removes the socket file
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Empty on success, else what went wrong.
    std::string start(const std::string& path);

    uint64_t refusedPeers() const { return m_refusedPeers; }
    uint64_t refusedBusy() const { return m_refusedBusy; }
    uint64_t badRequests() const { return m_badRequests; }

private:
    struct Client {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> finished;
    };
    void acceptLoop();
    void serve(wl::UniqueFd fd);
    void reply(int fd, const std::string& line);
    void reapFinished();

    Handler m_handler;
    ControlServerLimits m_limits;
    std::string m_path;
    wl::UniqueFd m_listen;
    wlsock::WakeFd m_stop;
    std::atomic<bool> m_stopping{false};
    std::thread m_acceptor;
    std::list<Client> m_clients;  // the acceptor's, then the destructor's after the join
    std::atomic<uint64_t> m_refusedPeers{0};
    std::atomic<uint64_t> m_refusedBusy{0};
    std::atomic<uint64_t> m_badRequests{0};
};

// Whether a peer with this uid may use the socket: root or our own user.
bool trustedPeer(uid_t peer, uid_t own);

}  // namespace wlagent

#endif
