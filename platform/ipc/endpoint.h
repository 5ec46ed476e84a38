// A named endpoint: listens on its socket, receives frames on a thread of
// its own and hands each to the subscriber on the thread that made the
// endpoint; sends requests from worker threads and returns their answers to
// the requesting thread's loop.
#ifndef KEMIPC_ENDPOINT_H
#define KEMIPC_ENDPOINT_H

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "cl_ev.h"
#include "connection.h"
#include "connection_limits.h"
#include "kem_ipc.h"
#include "rate_limit.h"
#include "unix_socket.h"

namespace kemipc {

std::string endpoint_path(const std::string& name);

struct Subscription {
    std::mutex lock;
    kem_ipc_msg_fn fn = nullptr;
    void* user = nullptr;
};

// Messages handed to the owner's loop and not yet run there: bounded, so
// that a peer sending faster than the owner serves cannot fill the memory.
struct Backlog {
    std::atomic<std::size_t> messages{0};
    std::atomic<std::size_t> bytes{0};
};

struct EndpointLimits {
    std::size_t connections;
    std::size_t per_peer;        // connections of one process
    std::size_t buffered_bytes;  // partial frames of all connections together
    std::size_t backlog_messages;
    std::size_t backlog_bytes;
    int idle_ms;  // a connection that neither sends nor is answered this long goes
    static EndpointLimits fromEnvironment();
};

class Endpoint {
public:
    // Null with *err set when the socket can't be made (EADDRINUSE: the name
    // is served already).
    static std::unique_ptr<Endpoint> create(const std::string& name, int* err);
    Endpoint() = default;  // not listening yet: use create
    ~Endpoint();
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

    void subscribe(kem_ipc_msg_fn fn, void* user);
    // 0 when the worker is under way; the answer comes through reply.
    int request(const std::string& path, std::uint32_t cmd, const void* data, std::uint32_t size,
                kem_ipc_reply_fn reply, int wait_seconds);

private:
    void receiveLoop();
    void acceptOne();
    void closeIdle();
    void readFrom(const std::shared_ptr<Connection>& connection);
    void drop(unsigned long id);
    void deliver(unsigned long connection, Frame frame);

    struct Worker {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> finished;
    };
    void reapWorkers();

    const EndpointLimits m_limits = EndpointLimits::fromEnvironment();
    wlsock::ConnectionLimits m_slots{m_limits.connections, m_limits.per_peer};
    std::shared_ptr<Backlog> m_backlog = std::make_shared<Backlog>();
    std::size_t m_buffered = 0;  // the receiver's
    wlsock::RateLimit m_refusalLog;
    wlsock::RateLimit m_overloadLog;
    std::string m_path;
    wl::UniqueFd m_listen;
    wlsock::WakeFd m_stop;
    std::atomic<bool> m_stopping{false};
    cl_ev_loop_t m_owner = nullptr;
    std::shared_ptr<Subscription> m_subscription = std::make_shared<Subscription>();
    std::thread m_receiver;
    std::map<unsigned long, std::shared_ptr<Connection>> m_connections;  // the receiver's
    std::mutex m_workersLock;
    std::list<Worker> m_workers;
};

}  // namespace kemipc

#endif
