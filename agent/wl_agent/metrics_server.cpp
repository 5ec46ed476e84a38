#include "metrics_server.h"

#include <arpa/inet.h>
#include <microhttpd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace wlagent {
namespace {

constexpr unsigned kMaxConnections = 8;
constexpr unsigned kIdleSeconds = 5;
constexpr size_t kHeaderMemory = 16 * 1024;

bool parsePort(const std::string& text, unsigned& port) {
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    unsigned long value = std::strtoul(text.c_str(), nullptr, 10);
    if (value == 0 || value > 65535) return false;
    port = static_cast<unsigned>(value);
    return true;
}

const char kLoopbackOnly[] =
    " is not a loopback address: the metrics endpoint listens on 127.0.0.1 (or another 127.x address, or [::1]) only";

// A request with a body is answered before the body is read.
MHD_Result handleRequest(void* self, MHD_Connection* connection, const char* url, const char* method, const char*,
                         const char*, size_t*, void**) {
    int result = static_cast<MetricsServer*>(self)->answer(connection, url ? url : "", method ? method : "");
    return result == MHD_YES ? MHD_YES : MHD_NO;
}

}  // namespace

std::string parseListenAddress(const std::string& text, ListenAddress& out) {
    std::string host, portText;
    if (!text.empty() && text[0] == '[') {
        size_t close = text.find(']');
        if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':')
            return "listen = " + text + " must be ADDRESS:PORT, e.g. 127.0.0.1:9464";
        host = text.substr(1, close - 1);
        portText = text.substr(close + 2);
    } else {
        size_t colon = text.rfind(':');
        if (colon == std::string::npos) return "listen = " + text + " must be ADDRESS:PORT, e.g. 127.0.0.1:9464";
        host = text.substr(0, colon);
        portText = text.substr(colon + 1);
    }
    unsigned port = 0;
    if (!parsePort(portText, port)) return "listen = " + text + ": the port must be 1 to 65535";
    out = ListenAddress();
    in_addr v4{};
    in6_addr v6{};
    if (::inet_pton(AF_INET, host.c_str(), &v4) == 1) {
        if ((ntohl(v4.s_addr) >> 24) != 127) return "listen = " + text + ": " + host + kLoopbackOnly;
        auto* sin = reinterpret_cast<sockaddr_in*>(&out.address);
        sin->sin_family = AF_INET;
        sin->sin_port = htons(static_cast<uint16_t>(port));
        sin->sin_addr = v4;
    } else if (::inet_pton(AF_INET6, host.c_str(), &v6) == 1) {
        if (!IN6_IS_ADDR_LOOPBACK(&v6)) return "listen = " + text + ": " + host + kLoopbackOnly;
        auto* sin6 = reinterpret_cast<sockaddr_in6*>(&out.address);
        sin6->sin6_family = AF_INET6;
        sin6->sin6_port = htons(static_cast<uint16_t>(port));
        sin6->sin6_addr = v6;
        out.ipv6 = true;
    } else {
        return "listen = " + text + ": \"" + host + "\" is not an IP address (names are not looked up; use 127.0.0.1)";
    }
    out.port = port;
    out.text = out.ipv6 ? "[" + host + "]:" + portText : host + ":" + portText;
    return "";
}

MetricsServer::MetricsServer(Health health, Metrics metrics)
    : m_health(std::move(health)), m_metrics(std::move(metrics)) {}

MetricsServer::~MetricsServer() {
    if (m_daemon) MHD_stop_daemon(m_daemon);
}

std::string MetricsServer::start(const ListenAddress& where) {
    unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL;
    if (where.ipv6) flags |= MHD_USE_IPv6;
    errno = 0;
    m_daemon = MHD_start_daemon(flags, static_cast<uint16_t>(where.port), nullptr, nullptr, &handleRequest, this,
                                MHD_OPTION_SOCK_ADDR, reinterpret_cast<const sockaddr*>(&where.address),
                                MHD_OPTION_CONNECTION_LIMIT, kMaxConnections, MHD_OPTION_CONNECTION_TIMEOUT,
                                kIdleSeconds, MHD_OPTION_CONNECTION_MEMORY_LIMIT, kHeaderMemory, MHD_OPTION_END);
    if (!m_daemon) {
        return "cannot serve metrics on " + where.text + (errno ? std::string(": ") + std::strerror(errno) : "");
    }
    return "";
}

int MetricsServer::answer(MHD_Connection* connection, const std::string& url, const std::string& method) {
    unsigned status = MHD_HTTP_OK;
    std::string body;
    const char* type = "text/plain; charset=utf-8";
    if (method != "GET" && method != "HEAD") {
        status = MHD_HTTP_METHOD_NOT_ALLOWED;
        body = "only GET\n";
    } else if (url == "/healthz") {
        std::string why;
        bool healthy = m_health(why);
        status = healthy ? MHD_HTTP_OK : MHD_HTTP_SERVICE_UNAVAILABLE;
        body = healthy ? "ok\n" : "unhealthy: " + why + "\n";
    } else if (url == "/metrics") {
        body = m_metrics();
        type = "text/plain; version=0.0.4; charset=utf-8";
    } else {
        status = MHD_HTTP_NOT_FOUND;
        body = "not found: /healthz and /metrics are served\n";
    }
    (status == MHD_HTTP_OK || status == MHD_HTTP_SERVICE_UNAVAILABLE ? m_served : m_refused)++;
    MHD_Response* response =
        MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY);
    if (!response) return MHD_NO;
    MHD_add_response_header(response, "Content-Type", type);
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED) MHD_add_response_header(response, "Allow", "GET, HEAD");
    int result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

}  // namespace wlagent
