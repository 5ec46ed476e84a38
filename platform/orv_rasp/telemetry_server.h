// Receives telemetry texts from probes on a Unix stream socket, on a thread
// of its own. The socket is open to one group; each peer is checked by its
// credentials, each line by the process it names, and connections, line
// sizes, buffered bytes and stalls are bounded.
#ifndef ORV_RASP_TELEMETRY_SERVER_H
#define ORV_RASP_TELEMETRY_SERVER_H

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "connection_limits.h"
#include "line_assembler.h"
#include "orv_rasp.h"
#include "peer_cred.h"
#include "rate_limit.h"
#include "telemetry_counters.h"
#include "unix_socket.h"

namespace orv_rasp {

constexpr std::size_t kMaxLineBytes = 1024 * 1024;

class TelemetryServer {
public:
    struct Limits {
        std::size_t connections;
        std::size_t per_peer;        // per user; root's processes count one by one
        std::size_t buffered_bytes;  // partial lines of all connections together
        int idle_ms;                 // the longest a line may stall half-sent
        bool any_group_member;       // let in every peer the socket's group admits
        static Limits fromEnvironment();
    };

    TelemetryServer() = default;
    ~TelemetryServer();
    TelemetryServer(const TelemetryServer&) = delete;
    TelemetryServer& operator=(const TelemetryServer&) = delete;

    // Starts listening on first use; later calls only replace the callback.
    // 0 on success, -1 when the socket could not be opened.
    int registerCallback(orv_rasp_tele_fn callback, void* user);

    std::string countersJson() const { return m_counters.toJson(); }

private:
    using Clock = std::chrono::steady_clock;

    struct Connection {
        wl::UniqueFd fd;
        wlsock::PeerCred peer;
        bool checked = false;  // its lines must name its own process
        wlsock::ConnectionSlot slot;
        std::unique_ptr<LineAssembler> lines;
        Clock::time_point lastByte;
    };
    using Connections = std::map<int, std::unique_ptr<Connection>>;

    int start();
    void stop();
    void run();
    void serveOnce(int timeout_ms);
    void acceptOne();
    bool admits(const wlsock::PeerCred& peer, std::string* why);
    enum class ReadResult { Open, Ended, Overflowed };
    ReadResult readFrom(Connection& connection);
    void closeIdle();
    void close(Connections::iterator it, bool keep_last_line);
    void deliver(Connection& connection, const std::string& line);
    void refuseLine(const Connection& connection, const char* why, std::atomic<std::uint64_t>& counter);

    const Limits m_limits = Limits::fromEnvironment();
    std::mutex m_mutex;  // guards the callback and the start
    orv_rasp_tele_fn m_callback = nullptr;
    void* m_user = nullptr;
    bool m_started = false;

    wl::UniqueFd m_listener;
    wlsock::WakeFd m_wake;
    std::string m_socketPath;
    std::string m_catalogue;
    // The server thread's only:
    Connections m_connections;
    std::size_t m_buffered = 0;
    wlsock::ConnectionLimits m_slots{m_limits.connections, m_limits.per_peer};
    TelemetryCounters m_counters;
    wlsock::RateLimit m_peerLog;
    wlsock::RateLimit m_lineLog;
    wlsock::RateLimit m_limitLog;
    std::thread m_thread;
};

}  // namespace orv_rasp

#endif
