#include "subscriber_server.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstring>
#include <deque>

#include "collector_log.h"
#include "vrccl_action.h"
#include "vrccl_wire.h"

namespace wlc {

struct SubscriberServer::Connection {
    wl::UniqueFd fd;
    uid_t uid = 0;
    std::set<int32_t> pids;
    bool receiver = false;  // subscribed at least once: gets records
    uint64_t sequence = 0;
    std::vector<uint8_t> in;
    std::deque<std::vector<uint8_t>> out;
    std::size_t outBytes = 0;
    std::size_t outOffset = 0;  // into out.front()
};

namespace {

// Clients only ever send small frames.
constexpr uint32_t kMaxClientBody = 64;

bool fillAddress(const std::string& path, sockaddr_un& addr) {
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) return false;
    std::memcpy(addr.sun_path, path.c_str(), path.size());
    return true;
}

// Whether something still answers on the path: then it is not ours to take.
bool socketAnswers(const sockaddr_un& addr) {
    wl::UniqueFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return probe.valid() && ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
}

bool peerAllowed(int fd, uid_t* uid) {
    struct ucred cred;
    socklen_t size = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0) return false;
    *uid = cred.uid;
    return cred.uid == 0 || cred.uid == ::geteuid();
}

}  // namespace

SubscriberServer::SubscriberServer(std::string socketPath, std::string backendName, ServerHooks hooks,
                                   ServerLimits limits)
    : m_path(std::move(socketPath)), m_backend(std::move(backendName)), m_hooks(std::move(hooks)), m_limits(limits) {}

SubscriberServer::~SubscriberServer() { stop(); }

bool SubscriberServer::start(std::string& error) {
    sockaddr_un addr;
    if (!fillAddress(m_path, addr)) {
        error = "socket path unusable: " + m_path;
        return false;
    }
    if (socketAnswers(addr)) {
        error = "another collector answers on " + m_path;
        return false;
    }
    ::unlink(m_path.c_str());
    m_listen.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    m_wake.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_listen.valid() || !m_wake.valid()) {
        error = std::string("cannot create a socket: ") + std::strerror(errno);
        return false;
    }
    // Owner-only from the first moment: bind under a tight umask.
    mode_t old = ::umask(0177);
    int bound = ::bind(m_listen.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::umask(old);
    if (bound != 0 || ::listen(m_listen.get(), 16) != 0) {
        error = "cannot listen on " + m_path + ": " + std::strerror(errno);
        m_listen.reset();
        return false;
    }
    m_stopping = false;
    m_thread = std::thread([this] { serve(); });
    return true;
}

void SubscriberServer::stop() {
    if (!m_thread.joinable()) return;
    m_stopping = true;
    uint64_t one = 1;
    ssize_t rc = ::write(m_wake.get(), &one, sizeof one);
    (void)rc;
    m_thread.join();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_connections.clear();
    m_pidUsers.clear();
    m_listen.reset();
    ::unlink(m_path.c_str());
}

std::size_t SubscriberServer::receivers() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::size_t n = 0;
    for (const auto& c : m_connections) n += c->receiver ? 1 : 0;
    return n;
}

std::size_t SubscriberServer::largestQueue() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::size_t most = 0;
    for (const auto& c : m_connections) {
        if (c->receiver && c->outBytes > most) most = c->outBytes;
    }
    return most;
}

std::vector<int32_t> SubscriberServer::subscribedPids() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<int32_t> pids;
    for (const auto& entry : m_pidUsers) pids.push_back(entry.first);
    return pids;
}

void SubscriberServer::queueFrame(Connection& c, uint16_t kind, const void* body, std::size_t length) {
    vrccl_frame_head head{VRCCL_MAGIC, kind, 0, static_cast<uint32_t>(length)};
    std::vector<uint8_t> frame(sizeof head + length);
    std::memcpy(frame.data(), &head, sizeof head);
    if (length) std::memcpy(frame.data() + sizeof head, body, length);
    c.outBytes += frame.size();
    c.out.push_back(std::move(frame));
}

void SubscriberServer::broadcast(EventKind kind, uint32_t subType, const std::vector<uint8_t>& payload) {
    std::size_t k = static_cast<std::size_t>(kind);
    bool queued = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& c : m_connections) {
            if (!c->receiver) continue;
            ++c->sequence;
            std::size_t frameSize = sizeof(vrccl_frame_head) + sizeof(vrccl_record_head) + payload.size();
            if (c->outBytes + frameSize > m_limits.maxQueuedBytes) {
                ++m_lost[k];
                continue;
            }
            std::vector<uint8_t> body(sizeof(vrccl_record_head) + payload.size());
            vrccl_record_head head{subType, static_cast<uint32_t>(payload.size()), c->sequence};
            std::memcpy(body.data(), &head, sizeof head);
            std::memcpy(body.data() + sizeof head, payload.data(), payload.size());
            queueFrame(*c, VRCCL_RECORD, body.data(), body.size());
            ++m_sent[k];
            queued = true;
        }
    }
    if (queued) {
        uint64_t one = 1;
        ssize_t rc = ::write(m_wake.get(), &one, sizeof one);
        (void)rc;
    }
}

void SubscriberServer::serve() {
    std::vector<pollfd> fds;
    while (!m_stopping) {
        fds.clear();
        fds.push_back({m_listen.get(), POLLIN, 0});
        fds.push_back({m_wake.get(), POLLIN, 0});
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            for (auto& c : m_connections)
                fds.push_back({c->fd.get(), static_cast<short>(POLLIN | (c->out.empty() ? 0 : POLLOUT)), 0});
        }
        if (::poll(fds.data(), fds.size(), 1000) < 0 && errno != EINTR) break;
        if (fds[1].revents & POLLIN) {
            uint64_t count;
            ssize_t rc = ::read(m_wake.get(), &count, sizeof count);
            (void)rc;
        }
        if (m_stopping) break;
        // Connections are only added and removed on this thread, so the
        // positions in fds still match.
        for (std::size_t i = fds.size(); i-- > 2;) {
            std::size_t index = i - 2;
            short events = fds[i].revents;
            bool keep = true;
            std::lock_guard<std::mutex> lock(m_mutex);
            Connection& c = *m_connections[index];
            if (events & (POLLIN | POLLHUP | POLLERR)) keep = readFrom(c);
            if (keep) keep = writeTo(c);
            if (!keep) drop(index);
        }
        if (fds[0].revents & POLLIN) accept();
    }
}

void SubscriberServer::accept() {
    while (true) {
        wl::UniqueFd fd(::accept4(m_listen.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd.valid()) return;
        uid_t uid = 0;
        if (!peerAllowed(fd.get(), &uid)) {
            // Told once in a while: a flood of refused peers must not flood the log.
            if (m_refused++ % 100 == 0) logLine("refused a peer with uid %u (only root or our own user)", uid);
            continue;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_connections.size() >= m_limits.maxConnections) {
            if (m_refused++ % 100 == 0) logLine("refused a peer: %zu connections already", m_connections.size());
            continue;
        }
        auto c = std::make_unique<Connection>();
        c->fd = std::move(fd);
        c->uid = uid;
        vrccl_hello hello{};
        hello.version = VRCCL_PROTOCOL_VERSION;
        hello.collector_pid = static_cast<uint32_t>(::getpid());
        std::strncpy(hello.backend, m_backend.c_str(), sizeof hello.backend - 1);
        queueFrame(*c, VRCCL_HELLO, &hello, sizeof hello);
        writeTo(*c);
        m_connections.push_back(std::move(c));
    }
}

bool SubscriberServer::readFrom(Connection& c) {
    uint8_t buffer[4096];
    while (true) {
        ssize_t n = ::recv(c.fd.get(), buffer, sizeof buffer, 0);
        if (n == 0) return false;
        if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        c.in.insert(c.in.end(), buffer, buffer + n);
        while (c.in.size() >= sizeof(vrccl_frame_head)) {
            vrccl_frame_head head;
            std::memcpy(&head, c.in.data(), sizeof head);
            if (head.magic != VRCCL_MAGIC || head.length > kMaxClientBody) {
                logLine("closed a connection that sent a malformed frame");
                return false;
            }
            std::size_t total = sizeof head + head.length;
            if (c.in.size() < total) break;
            if (!handleFrame(c, head.kind, c.in.data() + sizeof head, head.length)) return false;
            c.in.erase(c.in.begin(), c.in.begin() + static_cast<std::ptrdiff_t>(total));
        }
    }
}

bool SubscriberServer::handleFrame(Connection& c, uint16_t kind, const uint8_t* body, uint32_t length) {
    switch (kind) {
        case VRCCL_SUBSCRIBE: {
            if (length != sizeof(vrccl_subscribe)) return false;
            vrccl_subscribe request;
            std::memcpy(&request, body, sizeof request);
            subscribe(c, request.action, request.pid);
            return true;
        }
        case VRCCL_STATUS_REQ: {
            std::vector<int32_t> pids;
            std::size_t receivers = 0;
            for (const auto& entry : m_pidUsers) pids.push_back(entry.first);
            for (const auto& other : m_connections) receivers += other->receiver ? 1 : 0;
            std::string text = m_hooks.status ? m_hooks.status(pids, receivers) : "{}";
            if (text.size() > VRCCL_MAX_BODY) text = "{}";
            queueFrame(c, VRCCL_STATUS, text.data(), text.size());
            return true;
        }
        default: logLine("closed a connection that sent frame kind %u", kind); return false;
    }
}

void SubscriberServer::subscribe(Connection& c, int32_t action, int32_t pid) {
    if (pid <= 0) return;
    c.receiver = true;
    if (action == VRCCL_ACTION_ADD_PID) {
        if (c.pids.size() >= m_limits.maxPidsPerConnection || !c.pids.insert(pid).second) return;
        if (m_pidUsers[pid]++ == 0 && m_hooks.watch) m_hooks.watch(pid);
    } else if (action == VRCCL_ACTION_DEL_PID) {
        if (c.pids.erase(pid) == 0) return;
        if (--m_pidUsers[pid] == 0) {
            m_pidUsers.erase(pid);
            if (m_hooks.unwatch) m_hooks.unwatch(pid);
        }
    }
}

bool SubscriberServer::writeTo(Connection& c) {
    while (!c.out.empty()) {
        std::vector<uint8_t>& frame = c.out.front();
        ssize_t n = ::send(c.fd.get(), frame.data() + c.outOffset, frame.size() - c.outOffset, MSG_NOSIGNAL);
        if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        c.outOffset += static_cast<std::size_t>(n);
        if (c.outOffset == frame.size()) {
            c.outBytes -= frame.size();
            c.outOffset = 0;
            c.out.pop_front();
        }
    }
    return true;
}

void SubscriberServer::drop(std::size_t index) {
    Connection& c = *m_connections[index];
    for (int32_t pid : c.pids) {
        if (--m_pidUsers[pid] == 0) {
            m_pidUsers.erase(pid);
            if (m_hooks.unwatch) m_hooks.unwatch(pid);
        }
    }
    m_connections.erase(m_connections.begin() + static_cast<std::ptrdiff_t>(index));
}

}  // namespace wlc
