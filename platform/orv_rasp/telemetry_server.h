// Receives telemetry texts from probes on a Unix stream socket, and on a
// loopback TCP port when WL_RASP_TCP_PORT names one, on a thread of its own.
#ifndef ORV_RASP_TELEMETRY_SERVER_H
#define ORV_RASP_TELEMETRY_SERVER_H

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "line_assembler.h"
#include "orv_rasp.h"

namespace orv_rasp {

constexpr std::size_t kMaxLineBytes = 1024 * 1024;

// Closes a descriptor when it goes out of scope.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    ~UniqueFd();
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    int get() const { return m_fd; }
    int release() {
        int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    bool valid() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};

class TelemetryServer {
public:
    TelemetryServer() = default;
    ~TelemetryServer();
    TelemetryServer(const TelemetryServer&) = delete;
    TelemetryServer& operator=(const TelemetryServer&) = delete;

    // Starts listening on first use; later calls only replace the callback.
    // 0 on success, -1 when no endpoint could be opened.
    int registerCallback(orv_rasp_tele_fn callback, void* user);

private:
    struct Connection {
        UniqueFd fd;
        std::unique_ptr<LineAssembler> lines;
    };

    int start();
    void stop();
    void run();
    void acceptFrom(int listener);
    bool readFrom(Connection& connection);
    void deliver(const std::string& line);

    std::mutex m_mutex;  // guards the callback and the start
    orv_rasp_tele_fn m_callback = nullptr;
    void* m_user = nullptr;
    bool m_started = false;

    UniqueFd m_unixListener;
    UniqueFd m_tcpListener;
    UniqueFd m_wakeRead;
    UniqueFd m_wakeWrite;
    std::string m_socketPath;
    std::map<int, Connection> m_connections;  // the server thread's only
    std::thread m_thread;
};

}  // namespace orv_rasp

#endif
