// The collector's socket: accepts the agent's client (and wlctl), checks who
// is calling, takes subscriptions and sends records. One thread serves every
// connection; records are queued per connection and bounded.
#ifndef WLC_SUBSCRIBER_SERVER_H
#define WLC_SUBSCRIBER_SERVER_H

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host_event.h"
#include "wl_unique_fd.h"

namespace wlc {

struct ServerLimits {
    std::size_t maxConnections = 16;
    std::size_t maxQueuedBytes = 16u << 20;  // per connection
    std::size_t maxPidsPerConnection = 65536;
};

struct ServerHooks {
    // The first subscription of a pid, and the withdrawal of its last one.
    std::function<void(int32_t)> watch;
    std::function<void(int32_t)> unwatch;
    // The STATUS answer, given the subscribed pids and how many connections
    // receive records. Called with the server's lock held: it must not call
    // back into the server.
    std::function<std::string(const std::vector<int32_t>& pids, std::size_t receivers)> status;
};

class SubscriberServer {
public:
    SubscriberServer(std::string socketPath, std::string backendName, ServerHooks hooks, ServerLimits limits = {});
    ~SubscriberServer();

    // Binds (an existing socket that still answers is another collector's
    // and is left alone), restricts it to its owner and starts serving.
    bool start(std::string& error);
    void stop();

    // Queues the record for every connection that has subscribed. A
    // connection whose queue is full loses it (counted per kind; its
    // sequence numbers show the gap).
    void broadcast(EventKind kind, uint32_t subType, const std::vector<uint8_t>& payload);

    uint64_t sent(EventKind kind) const { return m_sent[static_cast<std::size_t>(kind)].load(); }
    uint64_t lost(EventKind kind) const { return m_lost[static_cast<std::size_t>(kind)].load(); }
    uint64_t refusedPeers() const { return m_refused.load(); }
    std::size_t receivers() const;
    // The fullest receiver's queue, in bytes: a producer that must not lose
    // records (a replay) waits while it is high.
    std::size_t largestQueue() const;
    const ServerLimits& limits() const { return m_limits; }
    std::vector<int32_t> subscribedPids() const;
    const std::string& socketPath() const { return m_path; }

private:
    struct Connection;

    void serve();
    void accept();
    bool readFrom(Connection& connection);
    bool writeTo(Connection& connection);
    bool handleFrame(Connection& connection, uint16_t kind, const uint8_t* body, uint32_t length);
    void subscribe(Connection& connection, int32_t action, int32_t pid);
    void drop(std::size_t index);
    void queueFrame(Connection& connection, uint16_t kind, const void* body, std::size_t length);

    std::string m_path;
    std::string m_backend;
    ServerHooks m_hooks;
    ServerLimits m_limits;
    wl::UniqueFd m_listen;
    wl::UniqueFd m_wake;
    std::thread m_thread;
    std::atomic<bool> m_stopping{false};

    mutable std::mutex m_mutex;  // connections, their queues and the pid counts
    std::vector<std::unique_ptr<Connection>> m_connections;
    std::map<int32_t, int> m_pidUsers;

    std::array<std::atomic<uint64_t>, kEventKindCount> m_sent{};
    std::array<std::atomic<uint64_t>, kEventKindCount> m_lost{};
    std::atomic<uint64_t> m_refused{0};
};

}  // namespace wlc

#endif
