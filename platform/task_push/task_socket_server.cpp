#include "task_socket_server.h"

#include <chrono>

#include "channel_limit.h"
#include "handler_registry.h"
#include "orv_log.h"
#include "peer_cred.h"
#include "request_line.h"

#define TASK_LOG(level, ...)                                           \
    do {                                                               \
        if (error_output_check(level)) {                               \
            error_output((level), "task_push", __LINE__, __VA_ARGS__); \
        }                                                              \
    } while (0)

namespace taskpush {

namespace {
constexpr int kReplyTimeoutMs = 5000;

// Takes a share of the byte budget, or nothing when it would overflow.
bool reserve(std::atomic<std::size_t>& used, std::size_t bytes, std::size_t limit) {
    std::size_t now = used.load();
    do {
        if (bytes > limit || now > limit - bytes) return false;
    } while (!used.compare_exchange_weak(now, now + bytes));
    return true;
}
}  // namespace

TaskSocketServer::Limits TaskSocketServer::Limits::fromEnvironment() {
    Limits limits;
    limits.connections = static_cast<std::size_t>(wlsock::channel_limit("WL_TASK_PUSH_MAX_CONNECTIONS", 32));
    limits.per_peer = static_cast<std::size_t>(wlsock::channel_limit("WL_TASK_PUSH_MAX_PER_PEER", 8));
    limits.buffered_bytes = static_cast<std::size_t>(wlsock::channel_limit("WL_TASK_PUSH_MAX_BUFFERED", 16l << 20));
    limits.idle_ms = static_cast<int>(wlsock::channel_limit("WL_TASK_PUSH_IDLE_MS", 10000));
    limits.request_ms = static_cast<int>(wlsock::channel_limit("WL_TASK_PUSH_REQUEST_MS", 30000));
    return limits;
}

TaskSocketServer::TaskSocketServer(HandlerRegistry& registry) : m_registry(registry) {}

TaskSocketServer::~TaskSocketServer() { m_listener.stop(); }

int TaskSocketServer::start(const std::string& path) {
    return m_listener.start(
        path, 0600, [this](int fd) { return admit(fd); },
        [](const char* what) { TASK_LOG(LOG_LVL_ERROR, "task push: %s", what); });
}

wlsock::ThreadedListener::Serve TaskSocketServer::admit(int fd) {
    wlsock::PeerCred peer;
    std::uint64_t held_back = 0;
    if (!wlsock::trusted_peer(fd, &peer)) {
        if (m_refusalLog.allow(&held_back)) {
            TASK_LOG(LOG_LVL_WARN,
                     "task push: refused pid %d uid %u, not root or the agent's user (%llu more unlogged)",
                     static_cast<int>(peer.pid), static_cast<unsigned>(peer.uid),
                     static_cast<unsigned long long>(held_back));
        }
        return nullptr;  // closed without a word
    }
    const std::uint64_t key = static_cast<std::uint64_t>(peer.pid);
    if (m_slots.acquire(key) != wlsock::ConnectionLimits::Verdict::Ok) {
        if (m_overloadLog.allow(&held_back)) {
            TASK_LOG(LOG_LVL_WARN, "task push: busy, connection of pid %d refused (%llu more unlogged)",
                     static_cast<int>(peer.pid), static_cast<unsigned long long>(held_back));
        }
        reply(fd, "ERR busy\n");
        return nullptr;
    }
    auto slot = std::make_shared<wlsock::ConnectionSlot>(&m_slots, key);
    // A request lost to an exception is logged by the listener.
    return [this, slot](wl::UniqueFd client) { serveRequest(client.get()); };
}

void TaskSocketServer::reply(int fd, const std::string& text) {
    wlsock::write_all(fd, text.data(), text.size(), -1, wlsock::deadline_in(kReplyTimeoutMs));
}

bool TaskSocketServer::receive(int fd, char* out, std::size_t size, wlsock::Deadline request) {
    std::size_t got = 0;
    while (got < size) {
        wlsock::Deadline idle = wlsock::deadline_in(m_limits.idle_ms);
        wlsock::IoResult ready = wlsock::wait_for(fd, POLLIN, m_listener.stop_fd(), idle < request ? idle : request);
        if (ready != wlsock::IoResult::Ok) return false;
        ssize_t n = ::recv(fd, out + got, size - got, MSG_DONTWAIT);
        if (n == 0) return false;
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
            return false;
        }
        got += static_cast<std::size_t>(n);
    }
    return true;
}

void TaskSocketServer::serveRequest(int fd) {
    const wlsock::Deadline request = wlsock::deadline_in(m_limits.request_ms);
    std::string line;
    for (;;) {
        char c = 0;
        if (!receive(fd, &c, 1, request)) return;  // silent or slow: cut off
        if (c == '\n') break;
        if (line.size() >= kMaxLine) {
            reply(fd, "ERR malformed request\n");
            return;
        }
        line.push_back(c);
    }
    std::string name;
    unsigned long length = 0;
    switch (parse_request_line(line, &name, &length)) {
        case LineResult::Malformed: reply(fd, "ERR malformed request\n"); return;
        case LineResult::TooLarge: reply(fd, "ERR too large\n"); return;
        case LineResult::Ok: break;
    }
    if (!m_registry.exists(name)) {
        reply(fd, "ERR unknown handler\n");
        return;
    }
    if (!reserve(m_buffered, length, m_limits.buffered_bytes)) {
        std::uint64_t held_back = 0;
        if (m_overloadLog.allow(&held_back)) {
            TASK_LOG(LOG_LVL_WARN,
                     "task push: busy, %zu bytes of requests held, one of %lu bytes refused (%llu more unlogged)",
                     m_buffered.load(), length, static_cast<unsigned long long>(held_back));
        }
        reply(fd, "ERR busy\n");
        return;
    }
    struct Release {
        std::atomic<std::size_t>& used;
        std::size_t bytes;
        ~Release() { used -= bytes; }
    } release{m_buffered, length};
    std::string body(length, '\0');
    if (length > 0 && !receive(fd, &body[0], length, request)) return;  // nothing was queued
    std::shared_ptr<Task> task = m_registry.submit(name, std::move(body), nullptr, nullptr);
    if (!task) {
        reply(fd, "ERR unknown handler\n");
        return;
    }
    unsigned int code = 0;
    Task::State state = Task::State::Queued;
    while (state == Task::State::Queued && !m_listener.stopping()) {
        state = task->waitFor(std::chrono::milliseconds(200), &code);
    }
    if (state == Task::State::Done) {
        reply(fd, std::to_string(code) + "\n");
    } else {
        reply(fd, "ERR handler gone\n");
    }
}

}  // namespace taskpush
