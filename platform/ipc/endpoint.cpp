#include "endpoint.h"

#include <algorithm>
#include <vector>

#include "channel_limit.h"
#include "exchange.h"
#include "frame.h"
#include "orv_log.h"
#include "peer_cred.h"

#define IPC_LOG(level, ...)                                         \
    do {                                                            \
        if (error_output_check(level)) {                            \
            error_output((level), "kemipc", __LINE__, __VA_ARGS__); \
        }                                                           \
    } while (0)

namespace kemipc {

namespace {

constexpr size_t kMaxWorkers = 64;
constexpr int kDefaultWaitSeconds = 10;
constexpr size_t kReadChunk = 65536;

struct Delivery {
    std::weak_ptr<Subscription> subscription;
    std::shared_ptr<Backlog> backlog;
    unsigned long connection;
    Frame frame;

    Delivery(std::weak_ptr<Subscription> s, std::shared_ptr<Backlog> b, unsigned long c, Frame f)
        : subscription(std::move(s)), backlog(std::move(b)), connection(c), frame(std::move(f)) {
        backlog->messages += 1;
        backlog->bytes += frame.data.size();
    }
    ~Delivery() {
        backlog->messages -= 1;
        backlog->bytes -= frame.data.size();
    }
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;
};

void run_delivery(void* arg) {
    std::unique_ptr<Delivery> delivery(static_cast<Delivery*>(arg));
    std::shared_ptr<Subscription> subscription = delivery->subscription.lock();
    if (!subscription) return;  // the endpoint went
    kem_ipc_msg_fn fn;
    void* user;
    {
        std::lock_guard<std::mutex> lock(subscription->lock);
        fn = subscription->fn;
        user = subscription->user;
    }
    if (!fn) return;
    const Frame& frame = delivery->frame;
    // The data carry a terminating NUL beyond size, for text payloads.
    fn(delivery->connection, frame.request_id, frame.cmd, frame.data.empty() ? nullptr : frame.data.c_str(),
       static_cast<unsigned int>(frame.data.size()), user);
}

void discard_delivery(void* arg) { std::unique_ptr<Delivery> delivery(static_cast<Delivery*>(arg)); }

struct Reply {
    kem_ipc_reply_fn fn;
    ExchangeResult result;
    std::uint32_t requested_cmd;
};

void run_reply(void* arg) {
    std::unique_ptr<Reply> reply(static_cast<Reply*>(arg));
    const ExchangeResult& result = reply->result;
    if (result.status < 0) {
        reply->fn(result.status, reply->requested_cmd, nullptr, 0);
    } else {
        reply->fn(result.status, result.cmd, result.data.empty() ? nullptr : result.data.c_str(),
                  static_cast<unsigned int>(result.data.size()));
    }
}

void discard_reply(void* arg) { std::unique_ptr<Reply> reply(static_cast<Reply*>(arg)); }

}  // namespace

EndpointLimits EndpointLimits::fromEnvironment() {
    EndpointLimits limits;
    limits.connections = static_cast<std::size_t>(wlsock::channel_limit("WL_IPC_MAX_CONNECTIONS", 64));
    limits.per_peer = static_cast<std::size_t>(wlsock::channel_limit("WL_IPC_MAX_PER_PEER", 16));
    limits.buffered_bytes = static_cast<std::size_t>(wlsock::channel_limit("WL_IPC_MAX_BUFFERED", 16l << 20));
    limits.backlog_messages = static_cast<std::size_t>(wlsock::channel_limit("WL_IPC_MAX_BACKLOG", 256));
    limits.backlog_bytes = static_cast<std::size_t>(wlsock::channel_limit("WL_IPC_MAX_BACKLOG_BYTES", 16l << 20));
    limits.idle_ms = static_cast<int>(wlsock::channel_limit("WL_IPC_IDLE_MS", 30000));
    return limits;
}

std::string endpoint_path(const std::string& name) {
    return wlsock::resolve_path("@/../var/run/ipc/" + name + ".sock");
}

std::unique_ptr<Endpoint> Endpoint::create(const std::string& name, int* err) {
    auto endpoint = std::make_unique<Endpoint>();
    if (!endpoint->m_stop.valid()) {
        *err = EMFILE;
        return nullptr;
    }
    std::string path = endpoint_path(name);
    endpoint->m_listen = wlsock::listen_at(path, 0600, err);
    if (!endpoint->m_listen.valid()) return nullptr;
    endpoint->m_path = path;
    endpoint->m_owner = cl_ev_current_loop();
    endpoint->m_receiver = std::thread(&Endpoint::receiveLoop, endpoint.get());
    return endpoint;
}

Endpoint::~Endpoint() {
    m_stopping = true;
    m_stop.signal();
    if (m_receiver.joinable()) m_receiver.join();
    {
        std::lock_guard<std::mutex> lock(m_workersLock);
        for (Worker& worker : m_workers) worker.thread.join();
        m_workers.clear();
    }
    for (auto& entry : m_connections) ConnectionTable::instance().close(entry.first);
    m_connections.clear();
    if (m_listen.valid()) ::unlink(m_path.c_str());
}

void Endpoint::subscribe(kem_ipc_msg_fn fn, void* user) {
    std::lock_guard<std::mutex> lock(m_subscription->lock);
    m_subscription->fn = fn;
    m_subscription->user = user;
}

void Endpoint::receiveLoop() {
    std::vector<pollfd> fds;
    std::vector<std::shared_ptr<Connection>> polled;
    const int tick = std::min(1000, std::max(10, m_limits.idle_ms / 4));
    while (!m_stopping) {
        try {
            fds.assign({{m_stop.get(), POLLIN, 0}, {m_listen.get(), POLLIN, 0}});
            polled.clear();
            for (auto& entry : m_connections) {
                fds.push_back({entry.second->fd(), POLLIN, 0});
                polled.push_back(entry.second);
            }
            int rc = ::poll(fds.data(), fds.size(), tick);
            if (rc < 0 || (fds[0].revents & POLLIN)) continue;
            for (size_t i = 0; i < polled.size(); ++i) {
                if (fds[i + 2].revents) readFrom(polled[i]);
            }
            if (fds[1].revents & POLLIN) acceptOne();
            closeIdle();
        } catch (const std::exception& error) {
            // Out of memory, most likely: the connections stay, the loop goes on.
            IPC_LOG(LOG_LVL_ERROR, "ipc endpoint %s: %s", m_path.c_str(), error.what());
        }
    }
}

void Endpoint::acceptOne() {
    wl::UniqueFd fd(::accept4(m_listen.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!fd.valid()) return;
    wlsock::PeerCred peer;
    std::uint64_t held_back = 0;
    if (!wlsock::trusted_peer(fd.get(), &peer)) {
        if (m_refusalLog.allow(&held_back)) {
            IPC_LOG(LOG_LVL_WARN,
                    "ipc endpoint %s: refused pid %d uid %u, not root or the agent's user (%llu more refused unlogged)",
                    m_path.c_str(), static_cast<int>(peer.pid), static_cast<unsigned>(peer.uid),
                    static_cast<unsigned long long>(held_back));
        }
        return;
    }
    const std::uint64_t key = static_cast<std::uint64_t>(peer.pid);
    wlsock::ConnectionLimits::Verdict verdict = m_slots.acquire(key);
    if (verdict != wlsock::ConnectionLimits::Verdict::Ok) {
        if (m_overloadLog.allow(&held_back)) {
            IPC_LOG(LOG_LVL_WARN, "ipc endpoint %s: connection of pid %d refused, %s (%llu more unlogged)",
                    m_path.c_str(), static_cast<int>(peer.pid),
                    verdict == wlsock::ConnectionLimits::Verdict::PeerFull ? "too many of its own" : "all slots taken",
                    static_cast<unsigned long long>(held_back));
        }
        return;
    }
    std::shared_ptr<Connection> connection =
        ConnectionTable::instance().open(std::move(fd), wlsock::ConnectionSlot(&m_slots, key));
    m_connections[connection->id()] = connection;
}

void Endpoint::closeIdle() {
    const auto now = Connection::Clock::now();
    const auto limit = std::chrono::milliseconds(m_limits.idle_ms);
    std::vector<unsigned long> idle;
    for (auto& entry : m_connections) {
        if (now - entry.second->lastActive() > limit) idle.push_back(entry.first);
    }
    for (unsigned long id : idle) {
        std::uint64_t held_back = 0;
        if (m_overloadLog.allow(&held_back)) {
            IPC_LOG(LOG_LVL_WARN, "ipc endpoint %s: connection idle over %d ms closed (%llu more unlogged)",
                    m_path.c_str(), m_limits.idle_ms, static_cast<unsigned long long>(held_back));
        }
        drop(id);
    }
}

void Endpoint::readFrom(const std::shared_ptr<Connection>& connection) {
    char buffer[kReadChunk];
    ssize_t n = ::recv(connection->fd(), buffer, sizeof(buffer), MSG_DONTWAIT);
    if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (n <= 0) {
        drop(connection->id());
        return;
    }
    connection->touch();
    FrameReader& reader = connection->reader();
    if (m_buffered + static_cast<size_t>(n) > m_limits.buffered_bytes) {
        std::uint64_t held_back = 0;
        if (m_overloadLog.allow(&held_back)) {
            IPC_LOG(LOG_LVL_WARN,
                    "ipc endpoint %s: %zu bytes of partial messages buffered, connection dropped (%llu more unlogged)",
                    m_path.c_str(), m_buffered, static_cast<unsigned long long>(held_back));
        }
        drop(connection->id());
        return;
    }
    m_buffered -= reader.buffered();
    reader.feed(buffer, static_cast<size_t>(n));
    for (;;) {
        Frame frame;
        FrameReader::Result result = reader.take(&frame);
        if (result == FrameReader::Result::Ready) {
            deliver(connection->id(), std::move(frame));
            continue;
        }
        m_buffered += reader.buffered();  // drop takes it off again
        if (result == FrameReader::Result::Bad) drop(connection->id());
        return;
    }
}

void Endpoint::drop(unsigned long id) {
    auto it = m_connections.find(id);
    if (it != m_connections.end()) {
        m_buffered -= it->second->reader().buffered();
        m_connections.erase(it);
    }
    ConnectionTable::instance().close(id);
}

void Endpoint::deliver(unsigned long connection, Frame frame) {
    if (m_backlog->messages.load() >= m_limits.backlog_messages ||
        m_backlog->bytes.load() + frame.data.size() > m_limits.backlog_bytes) {
        std::uint64_t held_back = 0;
        if (m_overloadLog.allow(&held_back)) {
            IPC_LOG(LOG_LVL_WARN,
                    "ipc endpoint %s: %zu messages wait for the owner, command %u dropped (%llu more unlogged)",
                    m_path.c_str(), m_backlog->messages.load(), frame.cmd, static_cast<unsigned long long>(held_back));
        }
        return;
    }
    auto delivery = std::make_unique<Delivery>(m_subscription, m_backlog, connection, std::move(frame));
    cl_ev_post_owned(m_owner, run_delivery, discard_delivery, delivery.release());
}

void Endpoint::reapWorkers() {
    for (auto it = m_workers.begin(); it != m_workers.end();) {
        if (it->finished->load()) {
            it->thread.join();
            it = m_workers.erase(it);
        } else {
            ++it;
        }
    }
}

int Endpoint::request(const std::string& path, std::uint32_t cmd, const void* data, std::uint32_t size,
                      kem_ipc_reply_fn reply, int wait_seconds) {
    std::lock_guard<std::mutex> lock(m_workersLock);
    if (m_stopping) return -1;
    reapWorkers();
    if (m_workers.size() >= kMaxWorkers) return -1;
    cl_ev_loop_t caller = cl_ev_current_loop();
    std::string payload(static_cast<const char*>(data), size);
    const int timeout_ms = (wait_seconds > 0 ? wait_seconds : kDefaultWaitSeconds) * 1000;
    auto finished = std::make_shared<std::atomic<bool>>(false);
    int stop = m_stop.get();
    auto work = [path, cmd, payload, reply, timeout_ms, caller, stop, finished]() {
        ExchangeResult result =
            exchange(path, cmd, payload.data(), static_cast<std::uint32_t>(payload.size()), timeout_ms, stop);
        if (!result.stopped && reply) {
            auto task = std::make_unique<Reply>(Reply{reply, std::move(result), cmd});
            cl_ev_post_owned(caller, run_reply, discard_reply, task.release());
        }
        finished->store(true);
    };
    m_workers.push_back(Worker{std::thread(work), finished});
    return 0;
}

}  // namespace kemipc
