#include "telemetry_server.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "channel_limit.h"
#include "line_pid.h"
#include "orv_log.h"
#include "peer_policy.h"

#define RASP_LOG(level, ...)                                          \
    do {                                                              \
        if (error_output_check(level)) {                              \
            error_output((level), "orv_rasp", __LINE__, __VA_ARGS__); \
        }                                                             \
    } while (0)

namespace orv_rasp {

namespace {
constexpr char kSocketPattern[] = "@/../var/run/rasp_telemetry.sock";
constexpr char kCataloguePattern[] = "@/../var/base/rasp_model.cfg";
constexpr std::size_t kReadChunk = 64 * 1024;

// Root's processes are told apart one by one; another user's share one count.
std::uint64_t peer_key(const wlsock::PeerCred& peer) {
    if (peer.uid == 0) return (1ull << 63) | static_cast<std::uint32_t>(peer.pid);
    return static_cast<std::uint64_t>(peer.uid);
}

unsigned long long as_ull(std::uint64_t value) { return static_cast<unsigned long long>(value); }
}  // namespace

TelemetryServer::Limits TelemetryServer::Limits::fromEnvironment() {
    Limits limits;
    limits.connections = static_cast<std::size_t>(wlsock::channel_limit("WL_RASP_MAX_CONNECTIONS", 256));
    limits.per_peer = static_cast<std::size_t>(wlsock::channel_limit("WL_RASP_MAX_PER_PEER", 64));
    limits.buffered_bytes = static_cast<std::size_t>(wlsock::channel_limit("WL_RASP_MAX_BUFFERED", 16l << 20));
    limits.idle_ms = static_cast<int>(wlsock::channel_limit("WL_RASP_IDLE_MS", 30000));
    const char* peers = std::getenv("WL_RASP_PEERS");
    limits.any_group_member = peers != nullptr && std::strcmp(peers, "group") == 0;
    return limits;
}

TelemetryServer::~TelemetryServer() { stop(); }

int TelemetryServer::registerCallback(orv_rasp_tele_fn callback, void* user) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_callback = callback;
    m_user = user;
    if (m_started) {
        return 0;
    }
    const int result = start();
    m_started = result == 0;
    return result;
}

int TelemetryServer::start() {
    m_socketPath = wlsock::resolve_path(kSocketPattern);
    m_catalogue = wlsock::resolve_path(kCataloguePattern);
    if (!m_wake.valid() || m_socketPath.empty()) {
        return -1;
    }
    std::string group;
    const gid_t gid = telemetry_group(&group);
    const char* wanted = std::getenv("WL_RASP_GROUP");
    if (wanted != nullptr && *wanted != '\0' && group != wanted) {
        RASP_LOG(LOG_LVL_ERROR, "telemetry group %s does not exist: only root may connect", wanted);
    }
    int err = 0;
    m_listener = wlsock::listen_at(m_socketPath, 0660, &err, gid);
    if (!m_listener.valid()) {
        RASP_LOG(LOG_LVL_ERROR, "telemetry socket %s: %s", m_socketPath.c_str(), std::strerror(err));
        return -1;
    }
    RASP_LOG(LOG_LVL_INFO, "telemetry socket %s, group %s, peers: %s", m_socketPath.c_str(), group.c_str(),
             m_limits.any_group_member ? "any member of the group" : "root and the models' applications");
    m_thread = std::thread([this] { run(); });
    return 0;
}

void TelemetryServer::stop() {
    if (!m_thread.joinable()) {
        return;
    }
    m_wake.signal();
    m_thread.join();
    m_connections.clear();
    m_listener.reset();
    ::unlink(m_socketPath.c_str());
}

void TelemetryServer::run() {
    const int tick = std::min(1000, std::max(10, m_limits.idle_ms / 4));
    for (;;) {
        pollfd stop = {m_wake.get(), POLLIN, 0};
        if (::poll(&stop, 1, 0) > 0) {
            return;  // unloading
        }
        try {
            serveOnce(tick);
        } catch (const std::exception& error) {
            // Out of memory, most likely: the loop goes on with what it has.
            ++m_counters.errors;
            RASP_LOG(LOG_LVL_ERROR, "telemetry server: %s", error.what());
        }
    }
}

void TelemetryServer::serveOnce(int timeout_ms) {
    std::vector<pollfd> fds;
    fds.reserve(m_connections.size() + 2);
    fds.push_back({m_wake.get(), POLLIN, 0});
    fds.push_back({m_listener.get(), POLLIN, 0});
    for (const auto& entry : m_connections) {
        fds.push_back({entry.first, POLLIN, 0});
    }
    if (::poll(fds.data(), fds.size(), timeout_ms) < 0) {
        if (errno != EINTR) {
            RASP_LOG(LOG_LVL_ERROR, "telemetry poll: %s", std::strerror(errno));
        }
        return;
    }
    if (fds[0].revents != 0) {
        return;
    }
    for (std::size_t i = 2; i < fds.size(); ++i) {
        if (fds[i].revents == 0) {
            continue;
        }
        auto it = m_connections.find(fds[i].fd);
        if (it == m_connections.end()) {
            continue;
        }
        const ReadResult result = readFrom(*it->second);
        if (result != ReadResult::Open) {
            close(it, result == ReadResult::Ended);
        }
    }
    if (fds[1].revents != 0) {
        acceptOne();
    }
    closeIdle();
}

bool TelemetryServer::admits(const wlsock::PeerCred& peer, std::string* why) {
    if (wlsock::trusted_uid(peer.uid) || m_limits.any_group_member) {
        return true;
    }
    if (runs_known_executable(peer.pid, peer.uid, m_catalogue)) {
        return true;
    }
    const std::string exe = executable_of(peer.pid, peer.uid);
    *why = "its executable " + (exe.empty() ? std::string("(unreadable)") : exe) + " is no model's application";
    return false;
}

void TelemetryServer::acceptOne() {
    wl::UniqueFd client(::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!client.valid()) {
        return;
    }
    wlsock::PeerCred peer;
    std::string why = "its credentials are unreadable";
    std::uint64_t held_back = 0;
    if (!wlsock::read_peer(client.get(), &peer) || !admits(peer, &why)) {
        ++m_counters.refused_peers;
        if (m_peerLog.allow(&held_back)) {
            RASP_LOG(LOG_LVL_WARN, "telemetry peer pid %d uid %u refused: %s (%llu more refused unlogged)",
                     static_cast<int>(peer.pid), static_cast<unsigned>(peer.uid), why.c_str(), as_ull(held_back));
        }
        return;  // closed without a word
    }
    const std::uint64_t key = peer_key(peer);
    const wlsock::ConnectionLimits::Verdict verdict = m_slots.acquire(key);
    if (verdict != wlsock::ConnectionLimits::Verdict::Ok) {
        ++m_counters.refused_busy;
        if (m_limitLog.allow(&held_back)) {
            RASP_LOG(LOG_LVL_WARN, "telemetry connection of pid %d uid %u refused: %s (%llu more unlogged)",
                     static_cast<int>(peer.pid), static_cast<unsigned>(peer.uid),
                     verdict == wlsock::ConnectionLimits::Verdict::PeerFull ? "its user has too many"
                                                                            : "all connections taken",
                     as_ull(held_back));
        }
        return;
    }
    auto connection = std::make_unique<Connection>();
    Connection* raw = connection.get();
    connection->fd = std::move(client);
    connection->peer = peer;
    connection->checked = !wlsock::trusted_uid(peer.uid);
    connection->slot = wlsock::ConnectionSlot(&m_slots, key);
    connection->lastByte = Clock::now();
    connection->lines = std::make_unique<LineAssembler>(
        kMaxLineBytes, [this, raw](const std::string& line) { deliver(*raw, line); },
        [this, raw](LineRefusal reason, std::size_t length) {
            if (reason == LineRefusal::TooLong) {
                refuseLine(*raw, "over 1048576 bytes", m_counters.oversize_lines);
                (void)length;
            } else {
                refuseLine(*raw, "empty", m_counters.dropped_lines);
            }
        });
    const int fd = connection->fd.get();
    m_connections.emplace(fd, std::move(connection));
    ++m_counters.connections;
    ++m_counters.active;
}

TelemetryServer::ReadResult TelemetryServer::readFrom(Connection& connection) {
    char buffer[kReadChunk];
    const ssize_t count = ::recv(connection.fd.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
    if (count < 0) {
        return (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) ? ReadResult::Open : ReadResult::Ended;
    }
    if (count == 0) {
        return ReadResult::Ended;
    }
    connection.lastByte = Clock::now();
    LineAssembler& lines = *connection.lines;
    m_buffered -= lines.buffered();
    lines.feed(buffer, static_cast<std::size_t>(count));
    m_buffered += lines.buffered();
    if (m_buffered > m_limits.buffered_bytes) {
        // The connection that tipped it over goes, with its partial line.
        ++m_counters.overflow_closed;
        std::uint64_t held_back = 0;
        if (m_limitLog.allow(&held_back)) {
            RASP_LOG(LOG_LVL_WARN,
                     "telemetry: %zu bytes of partial lines buffered, connection of pid %d closed "
                     "(%llu more unlogged)",
                     m_buffered, static_cast<int>(connection.peer.pid), as_ull(held_back));
        }
        return ReadResult::Overflowed;
    }
    return ReadResult::Open;
}

void TelemetryServer::closeIdle() {
    const auto now = Clock::now();
    const auto limit = std::chrono::milliseconds(m_limits.idle_ms);
    for (auto it = m_connections.begin(); it != m_connections.end();) {
        Connection& connection = *it->second;
        if (!connection.lines->partial() || now - connection.lastByte <= limit) {
            ++it;
            continue;
        }
        // A probe writes whole lines: half of one that stalls is a peer holding memory.
        ++m_counters.idle_closed;
        std::uint64_t held_back = 0;
        if (m_limitLog.allow(&held_back)) {
            RASP_LOG(LOG_LVL_WARN, "telemetry: pid %d stalled mid-line over %d ms, closed (%llu more unlogged)",
                     static_cast<int>(connection.peer.pid), m_limits.idle_ms, as_ull(held_back));
        }
        auto next = std::next(it);
        close(it, false);
        it = next;
    }
}

void TelemetryServer::close(Connections::iterator it, bool keep_last_line) {
    Connection& connection = *it->second;
    if (keep_last_line) {
        connection.lines->finish();
    } else if (connection.lines->partial()) {
        ++m_counters.dropped_lines;
    }
    m_buffered -= connection.lines->buffered();
    m_connections.erase(it);
    --m_counters.active;
}

void TelemetryServer::refuseLine(const Connection& connection, const char* why, std::atomic<std::uint64_t>& counter) {
    ++counter;
    std::uint64_t held_back = 0;
    if (m_lineLog.allow(&held_back)) {
        RASP_LOG(LOG_LVL_WARN, "telemetry line of pid %d uid %u refused: %s (%llu more unlogged)",
                 static_cast<int>(connection.peer.pid), static_cast<unsigned>(connection.peer.uid), why,
                 as_ull(held_back));
    }
}

void TelemetryServer::deliver(Connection& connection, const std::string& line) {
    const LineClaim claim = inspect_line(line.c_str());
    if (claim.shape == LineShape::TooDeep) {
        refuseLine(connection, describe(claim.shape), m_counters.dropped_lines);
        return;
    }
    if (connection.checked) {
        if (claim.shape != LineShape::Ok) {
            refuseLine(connection, describe(claim.shape), m_counters.refused_pid);
            return;
        }
        if (!speaks_for_itself(connection.peer.pid, claim.pid)) {
            refuseLine(connection, "its pid is another process's", m_counters.refused_pid);
            return;
        }
    }
    orv_rasp_tele_fn callback = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        callback = m_callback;
    }
    if (callback == nullptr) {
        ++m_counters.dropped_lines;
        return;
    }
    ++m_counters.lines;
    callback(line.c_str());
}

}  // namespace orv_rasp
