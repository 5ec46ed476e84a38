#include "collector_connection.h"

#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "frame_io.h"
#include "vrccl_log.h"

namespace vrccl {
namespace {

std::string errnoText(int err) { return std::strerror(err); }

// Blocking, bounded by SO_SNDTIMEO: for a Unix socket that is the wait for
// room in the listener's backlog, the only way its connect can stall.
wl::UniqueFd connectWithin(const std::string& path, int timeoutMs, std::string& problem) {
    sockaddr_un addr;
    if (!wlsock::fill_address(path, &addr)) {
        problem = "socket path too long";
        return wl::UniqueFd();
    }
    wl::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        problem = "socket: " + errnoText(errno);
        return wl::UniqueFd();
    }
    timeval tv = {timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        int err = errno;
        if (err == ENOENT)
            problem = "no collector socket";
        else if (err == ECONNREFUSED)
            problem = "nobody listens on the socket";
        else if (err == EAGAIN || err == EINPROGRESS)
            problem = "the collector accepts no connection (timed out)";
        else
            problem = "connect: " + errnoText(err);
        return wl::UniqueFd();
    }
    return fd;
}

std::string peerProblem(int fd) {
    ucred cred;
    socklen_t len = sizeof(cred);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return "its credentials are unreadable";
    uid_t own = ::geteuid();
    if (cred.uid != 0 && cred.uid != own) {
        return "it runs as uid " + std::to_string(cred.uid) + ", neither root nor our uid " + std::to_string(own);
    }
    return "";
}

std::string readHello(int fd, int timeoutMs, vrccl_hello& hello) {
    vrccl_frame_head head;
    IoStatus st = readFully(fd, &head, sizeof(head), -1, timeoutMs);
    if (st != IoStatus::Ok) return std::string("no greeting: ") + describe(st);
    if (const char* problem = headProblem(head)) return std::string("greeting with ") + problem;
    if (head.kind != VRCCL_HELLO) return "first frame is of kind " + std::to_string(head.kind) + ", not a greeting";
    if (head.length < sizeof(hello)) return "greeting too short";
    st = readFully(fd, &hello, sizeof(hello), -1, timeoutMs);
    if (st == IoStatus::Ok) st = skipBytes(fd, head.length - sizeof(hello), -1, timeoutMs);
    if (st != IoStatus::Ok) return std::string("greeting cut short: ") + describe(st);
    if (hello.version != VRCCL_PROTOCOL_VERSION) {
        return "protocol version " + std::to_string(hello.version) + ", we speak " +
               std::to_string(VRCCL_PROTOCOL_VERSION);
    }
    hello.backend[sizeof(hello.backend) - 1] = '\0';
    return "";
}

}  // namespace

std::unique_ptr<CollectorConnection> CollectorConnection::open(const std::string& path,
                                                               const ConnectionSettings& settings, Counters& counters,
                                                               DropHandler onDrop) {
    std::string problem;
    wl::UniqueFd fd = connectWithin(path, settings.connectMs, problem);
    vrccl_hello hello;
    if (fd.valid()) {
        std::string peer = peerProblem(fd.get());
        if (!peer.empty()) {
            VRCCL_LOG(LOG_LVL_ERROR, "refusing the collector at %s: %s", path.c_str(), peer.c_str());
            return nullptr;
        }
        problem = readHello(fd.get(), settings.helloMs, hello);
    }
    if (!problem.empty()) {
        VRCCL_LOG(LOG_LVL_WARN, "no collector at %s: %s", path.c_str(), problem.c_str());
        return nullptr;
    }
    auto connection =
        std::make_unique<CollectorConnection>(Key{}, std::move(fd), settings, counters, std::move(onDrop));
    if (!connection->m_stop.valid()) {
        VRCCL_LOG(LOG_LVL_ERROR, "no eventfd for the collector connection: %s", std::strerror(errno));
        return nullptr;
    }
    VRCCL_LOG(LOG_LVL_INFO, "connected to the collector at %s (pid %u, back-end %s)", path.c_str(), hello.collector_pid,
              hello.backend);
    connection->m_reader = std::thread([raw = connection.get()] { raw->readLoop(); });
    return connection;
}

CollectorConnection::CollectorConnection(Key, wl::UniqueFd fd, const ConnectionSettings& settings, Counters& counters,
                                         DropHandler onDrop)
    : m_fd(std::move(fd)),
      m_sendMs(settings.sendMs),
      m_counters(counters),
      m_delivery(counters, settings.receiver),
      m_onDrop(std::move(onDrop)) {}

CollectorConnection::~CollectorConnection() {
    m_stopping = true;
    m_stop.signal();
    if (m_reader.joinable()) m_reader.join();
}

int CollectorConnection::subscribe(int action, int pid) {
    std::lock_guard<std::mutex> lock(m_writeLock);
    if (!m_alive) return -1;
    vrccl_subscribe body = {action, pid, -1};
    IoStatus st = sendFrame(m_fd.get(), VRCCL_SUBSCRIBE, &body, sizeof(body), m_sendMs);
    if (st == IoStatus::Ok) return 0;
    VRCCL_LOG(LOG_LVL_ERROR, "subscription %d of pid %d not sent: %s", action, pid, describe(st));
    cut(std::string("a subscription could not be sent (") + describe(st) + ")");
    return -1;
}

void CollectorConnection::cut(const std::string& why) {
    {
        std::lock_guard<std::mutex> lock(m_reasonLock);
        if (m_cutReason.empty()) m_cutReason = why;
    }
    m_alive = false;
    // The reader wakes with end of stream; the collector sees it too.
    ::shutdown(m_fd.get(), SHUT_RDWR);
}

void CollectorConnection::readLoop() {
    ::pthread_setname_np(::pthread_self(), "vrccl-reader");
    std::string why;
    while (why.empty()) why = readFrame();
    finish(why);
}

std::string CollectorConnection::readFrame() {
    const int fd = m_fd.get();
    const int stop = m_stop.get();
    auto ioProblem = [](IoStatus st) { return std::string("connection ") + describe(st); };
    auto protocol = [this](const std::string& what) {
        ++m_counters.protocolErrors;
        return "protocol error: " + what;
    };
    vrccl_frame_head head;
    IoStatus st = readFully(fd, &head, sizeof(head), stop, -1);
    if (st != IoStatus::Ok) return ioProblem(st);
    if (const char* problem = headProblem(head)) return protocol(problem);
    if (head.kind != VRCCL_RECORD) {
        // STATUS answers and kinds of later versions carry nothing for us.
        st = skipBytes(fd, head.length, stop, -1);
        return st == IoStatus::Ok ? std::string() : ioProblem(st);
    }
    vrccl_record_head record;
    if (head.length < sizeof(record)) return protocol("record shorter than its head");
    st = readFully(fd, &record, sizeof(record), stop, -1);
    if (st != IoStatus::Ok) return ioProblem(st);
    if (record.size != head.length - sizeof(record)) {
        return protocol("record of " + std::to_string(record.size) + " bytes in a frame of " +
                        std::to_string(head.length));
    }
    st = readFully(fd, m_delivery.payloadFor(record.size), record.size, stop, -1);
    if (st != IoStatus::Ok) return ioProblem(st);
    if (!m_delivery.deliver(record)) return protocol("record sequence went backwards");
    return "";
}

void CollectorConnection::finish(const std::string& why) {
    m_alive = false;
    ::shutdown(m_fd.get(), SHUT_RDWR);
    if (m_stopping) {
        VRCCL_LOG(LOG_LVL_INFO, "disconnected from the collector: %s", m_delivery.summary().c_str());
        return;
    }
    std::string reason = why;
    {
        std::lock_guard<std::mutex> lock(m_reasonLock);
        if (!m_cutReason.empty()) reason = m_cutReason;
    }
    ++m_counters.drops;
    VRCCL_LOG(LOG_LVL_WARN, "lost the collector: %s; %s", reason.c_str(), m_delivery.summary().c_str());
    if (m_onDrop) m_onDrop(reason);
}

}  // namespace vrccl
