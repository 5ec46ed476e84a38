#include "endpoint.h"

#include <vector>

#include "exchange.h"
#include "frame.h"

namespace kemipc {

namespace {

constexpr size_t kMaxConnections = 64;
constexpr size_t kMaxWorkers = 64;
constexpr int kDefaultWaitSeconds = 10;

struct Delivery {
    std::weak_ptr<Subscription> subscription;
    unsigned long connection;
    Frame frame;
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

std::string endpoint_path(const std::string& name) { return wlsock::resolve_path("@/../var/run/ipc/" + name + ".sock"); }

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
    while (!m_stopping) {
        fds.assign({{m_stop.get(), POLLIN, 0}, {m_listen.get(), POLLIN, 0}});
        polled.clear();
        for (auto& entry : m_connections) {
            fds.push_back({entry.second->fd(), POLLIN, 0});
            polled.push_back(entry.second);
        }
        int rc = ::poll(fds.data(), fds.size(), 1000);
        if (rc <= 0 || (fds[0].revents & POLLIN)) continue;
        for (size_t i = 0; i < polled.size(); ++i) {
            if (fds[i + 2].revents) readFrom(polled[i]);
        }
        if (fds[1].revents & POLLIN) {
            wlsock::UniqueFd fd(::accept4(m_listen.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (fd.valid() && m_connections.size() < kMaxConnections) {
                std::shared_ptr<Connection> connection = ConnectionTable::instance().open(std::move(fd));
                m_connections[connection->id()] = connection;
            }
        }
    }
}

void Endpoint::readFrom(const std::shared_ptr<Connection>& connection) {
    char buffer[65536];
    ssize_t n = ::recv(connection->fd(), buffer, sizeof(buffer), MSG_DONTWAIT);
    if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (n <= 0) {
        drop(connection->id());
        return;
    }
    connection->reader().feed(buffer, static_cast<size_t>(n));
    for (;;) {
        Frame frame;
        FrameReader::Result result = connection->reader().take(&frame);
        if (result == FrameReader::Result::NeedMore) return;
        if (result == FrameReader::Result::Bad) {
            drop(connection->id());
            return;
        }
        deliver(connection->id(), std::move(frame));
    }
}

void Endpoint::drop(unsigned long id) {
    ConnectionTable::instance().close(id);
    m_connections.erase(id);
}

void Endpoint::deliver(unsigned long connection, Frame frame) {
    auto delivery = std::make_unique<Delivery>(Delivery{m_subscription, connection, std::move(frame)});
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
        ExchangeResult result = exchange(path, cmd, payload.data(), static_cast<std::uint32_t>(payload.size()),
                                         timeout_ms, stop);
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
