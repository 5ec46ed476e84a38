// /healthz and Prometheus /metrics over HTTP on a loopback address, served by
// libmicrohttpd. GET (and HEAD) only; connections, header memory and idle
// time are bounded.
#ifndef WL_AGENT_METRICS_SERVER_H
#define WL_AGENT_METRICS_SERVER_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

struct MHD_Daemon;
struct MHD_Connection;

namespace wlagent {

struct ListenAddress {
    sockaddr_storage address{};
    bool ipv6 = false;
    unsigned port = 0;
    std::string text;  // as given, normalised
};

// "127.0.0.1:9464", any 127.0.0.0/8 address, or "[::1]:9464". Names are not
// looked up and other addresses are refused: empty on success, else why.
std::string parseListenAddress(const std::string& text, ListenAddress& out);

class MetricsServer {
public:
    using Health = std::function<bool(std::string& why)>;
    using Metrics = std::function<std::string()>;

    MetricsServer(Health health, Metrics metrics);
    ~MetricsServer();
    MetricsServer(const MetricsServer&) = delete;
    MetricsServer& operator=(const MetricsServer&) = delete;

    // Empty on success, else why it could not listen.
    std::string start(const ListenAddress& where);

    uint64_t served() const { return m_served; }
    uint64_t refused() const { return m_refused; }

    // Queues the answer to one request; libmicrohttpd's MHD_YES or MHD_NO.
    int answer(MHD_Connection* connection, const std::string& url, const std::string& method);

private:
    Health m_health;
    Metrics m_metrics;
    MHD_Daemon* m_daemon = nullptr;
    std::atomic<uint64_t> m_served{0};
    std::atomic<uint64_t> m_refused{0};
};

}  // namespace wlagent

#endif
