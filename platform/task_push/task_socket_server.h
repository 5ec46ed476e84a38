// The task socket: accepts clients, reads one request each, queues it for
// its handler and answers with the result once the handler's owner ran it.
// One thread per client, so a task nobody pumps holds up only its client.
// Only root and the agent's own user are served; connections, the bytes of
// requests held and the time a request may take to arrive are bounded.
#ifndef TASKPUSH_TASK_SOCKET_SERVER_H
#define TASKPUSH_TASK_SOCKET_SERVER_H

#include <atomic>
#include <string>

#include "connection_limits.h"
#include "rate_limit.h"
#include "threaded_listener.h"

namespace taskpush {

class HandlerRegistry;

class TaskSocketServer {
public:
    explicit TaskSocketServer(HandlerRegistry& registry);
    ~TaskSocketServer();  // stops and joins every thread, removes the socket file
    TaskSocketServer(const TaskSocketServer&) = delete;
    TaskSocketServer& operator=(const TaskSocketServer&) = delete;

    // 0, or an errno value.
    int start(const std::string& path);

private:
    struct Limits {
        std::size_t connections;
        std::size_t per_peer;        // connections of one process
        std::size_t buffered_bytes;  // request bodies held, all clients together
        int idle_ms;                 // the longest silence inside a request
        int request_ms;              // the longest a request may take to arrive
        static Limits fromEnvironment();
    };

    wlsock::ThreadedListener::Serve admit(int fd);
    void serveRequest(int fd);
    // Reads exactly size bytes, allowing idle_ms between pieces and the
    // request's own deadline overall.
    bool receive(int fd, char* out, std::size_t size, wlsock::Deadline request);
    void reply(int fd, const std::string& text);

    HandlerRegistry& m_registry;
    const Limits m_limits = Limits::fromEnvironment();
    wlsock::ConnectionLimits m_slots{m_limits.connections, m_limits.per_peer};
    std::atomic<std::size_t> m_buffered{0};
    wlsock::RateLimit m_refusalLog;
    wlsock::RateLimit m_overloadLog;
    wlsock::ThreadedListener m_listener;  // last: its threads use the members above
};

}  // namespace taskpush

#endif
