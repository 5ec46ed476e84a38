#include "telemetry_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "dirutils.h"
#include "orv_log.h"

#define RASP_LOG(level, ...)                                      \
    do {                                                          \
        if (error_output_check(level)) {                          \
            error_output((level), "orv_rasp", __LINE__, __VA_ARGS__); \
        }                                                         \
    } while (0)

namespace orv_rasp {

namespace {
constexpr char kSocketPattern[] = "@/../var/run/rasp_telemetry.sock";
constexpr std::size_t kMaxConnections = 256;
constexpr std::size_t kReadChunk = 64 * 1024;

std::string parentDirectory(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

UniqueFd openUnixListener(const std::string& path) {
    sockaddr_un address;
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        RASP_LOG(LOG_LVL_ERROR, "telemetry socket path too long: %s", path.c_str());
        return UniqueFd();
    }
    std::memcpy(address.sun_path, path.c_str(), path.size());
    dirutils_mkdir(parentDirectory(path).c_str(), 0755);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        return UniqueFd();
    }
    unlink(path.c_str());  // a stale socket of an earlier run
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(fd.get(), 64) != 0) {
        RASP_LOG(LOG_LVL_ERROR, "telemetry socket %s: %s", path.c_str(), strerror(errno));
        return UniqueFd();
    }
    // Probes run inside applications, as their users, not as the agent's:
    // every local user must be able to connect.
    chmod(path.c_str(), 0666);
    return fd;
}

UniqueFd openTcpListener() {
    const char* text = std::getenv("WL_RASP_TCP_PORT");
    if (text == nullptr || *text == '\0') {
        return UniqueFd();
    }
    char* end = nullptr;
    const long port = std::strtol(text, &end, 10);
    if (*end != '\0' || port <= 0 || port > 65535) {
        RASP_LOG(LOG_LVL_ERROR, "WL_RASP_TCP_PORT is not a port: %s", text);
        return UniqueFd();
    }
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        return UniqueFd();
    }
    int on = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address;
    std::memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);  // never reachable from outside the host
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(fd.get(), 64) != 0) {
        RASP_LOG(LOG_LVL_ERROR, "telemetry port %ld: %s", port, strerror(errno));
        return UniqueFd();
    }
    return fd;
}
}  // namespace

UniqueFd::~UniqueFd() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
        if (m_fd >= 0) {
            close(m_fd);
        }
        m_fd = other.release();
    }
    return *this;
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
    char path[4097];
    std::memset(path, 0, sizeof(path));
    dirutils_path_transform(kSocketPattern, path, sizeof(path));
    m_socketPath = path;
    m_unixListener = openUnixListener(m_socketPath);
    m_tcpListener = openTcpListener();
    if (!m_unixListener.valid() && !m_tcpListener.valid()) {
        return -1;
    }
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0) {
        m_unixListener = UniqueFd();
        m_tcpListener = UniqueFd();
        return -1;
    }
    m_wakeRead = UniqueFd(pipe_fds[0]);
    m_wakeWrite = UniqueFd(pipe_fds[1]);
    m_thread = std::thread([this] { run(); });
    return 0;
}

void TelemetryServer::stop() {
    if (!m_thread.joinable()) {
        return;
    }
    const char byte = 0;
    ssize_t written = write(m_wakeWrite.get(), &byte, 1);
    (void)written;
    m_thread.join();
    m_connections.clear();
    if (m_unixListener.valid()) {
        m_unixListener = UniqueFd();
        unlink(m_socketPath.c_str());
    }
    m_tcpListener = UniqueFd();
}

void TelemetryServer::run() {
    std::vector<pollfd> fds;
    for (;;) {
        fds.clear();
        fds.push_back({m_wakeRead.get(), POLLIN, 0});
        if (m_unixListener.valid()) {
            fds.push_back({m_unixListener.get(), POLLIN, 0});
        }
        if (m_tcpListener.valid()) {
            fds.push_back({m_tcpListener.get(), POLLIN, 0});
        }
        for (const auto& entry : m_connections) {
            fds.push_back({entry.first, POLLIN, 0});
        }
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            RASP_LOG(LOG_LVL_ERROR, "telemetry poll: %s", strerror(errno));
            return;
        }
        if (fds[0].revents != 0) {
            return;  // unloading
        }
        for (std::size_t i = 1; i < fds.size(); ++i) {
            if (fds[i].revents == 0) {
                continue;
            }
            const int fd = fds[i].fd;
            if (fd == m_unixListener.get() || fd == m_tcpListener.get()) {
                acceptFrom(fd);
                continue;
            }
            auto it = m_connections.find(fd);
            if (it != m_connections.end() && !readFrom(it->second)) {
                it->second.lines->finish();
                m_connections.erase(it);
            }
        }
    }
}

void TelemetryServer::acceptFrom(int listener) {
    UniqueFd client(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (!client.valid()) {
        return;
    }
    if (m_connections.size() >= kMaxConnections) {
        RASP_LOG(LOG_LVL_WARN, "telemetry connection refused: %zu probes connected", m_connections.size());
        return;
    }
    const int fd = client.get();
    Connection connection;
    connection.fd = std::move(client);
    connection.lines = std::make_unique<LineAssembler>(
        kMaxLineBytes, [this](const std::string& line) { deliver(line); },
        [](LineRefusal reason, std::size_t length) {
            if (reason == LineRefusal::TooLong) {
                RASP_LOG(LOG_LVL_WARN, "telemetry line of %zu bytes refused: over %zu bytes", length, kMaxLineBytes);
            } else {
                RASP_LOG(LOG_LVL_WARN, "empty telemetry line refused");
            }
        });
    m_connections.emplace(fd, std::move(connection));
}

bool TelemetryServer::readFrom(Connection& connection) {
    char buffer[kReadChunk];
    const ssize_t count = read(connection.fd.get(), buffer, sizeof(buffer));
    if (count < 0) {
        return errno == EINTR || errno == EAGAIN;
    }
    if (count == 0) {
        return false;
    }
    connection.lines->feed(buffer, static_cast<std::size_t>(count));
    return true;
}

void TelemetryServer::deliver(const std::string& line) {
    orv_rasp_tele_fn callback = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        callback = m_callback;
    }
    if (callback != nullptr) {
        callback(line.c_str());
    }
}

}  // namespace orv_rasp
