// The agent's control socket <root>/var/run/wl-agent.sock: one request line
// in, one reply line out, per connection. Only root and the agent's own user
// are served; connections, request size and idle time are bounded.
#ifndef WL_AGENT_CONTROL_SERVER_H
#define WL_AGENT_CONTROL_SERVER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "threaded_listener.h"

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
    wlsock::ThreadedListener::Serve admit(int fd);
    void serve(wl::UniqueFd fd);
    void reply(int fd, const std::string& line);

    Handler m_handler;
    ControlServerLimits m_limits;
    std::atomic<uint64_t> m_refusedPeers{0};
    std::atomic<uint64_t> m_refusedBusy{0};
    std::atomic<uint64_t> m_badRequests{0};
    wlsock::ThreadedListener m_listener;  // last: its threads use the members above
};

}  // namespace wlagent

#endif
