// Metrics: the listen setting (loopback only), the text format, and what the
// status turns into.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "json_util.h"
#include "metrics_server.h"
#include "metrics_text.h"

namespace {

TEST(ListenAddress, LoopbackOnly) {
    struct Case {
        const char* text;
        bool ok;
        const char* normalised;
        const char* says;  // part of the refusal
    } cases[] = {
        {"127.0.0.1:9464", true, "127.0.0.1:9464", ""},
        {"127.10.0.3:80", true, "127.10.0.3:80", ""},
        {"[::1]:9464", true, "[::1]:9464", ""},
        {"0.0.0.0:9464", false, "", "not a loopback address"},
        {"192.168.1.5:9464", false, "", "not a loopback address"},
        {"[::]:9464", false, "", "not a loopback address"},
        {"localhost:9464", false, "", "names are not looked up"},
        {"127.0.0.1", false, "", "ADDRESS:PORT"},
        {"127.0.0.1:0", false, "", "the port must be 1 to 65535"},
        {"127.0.0.1:65536", false, "", "the port must be 1 to 65535"},
        {"127.0.0.1:-1", false, "", "the port must be 1 to 65535"},
        {"[::1]9464", false, "", "ADDRESS:PORT"},
    };
    for (const Case& c : cases) {
        wlagent::ListenAddress address;
        std::string problem = wlagent::parseListenAddress(c.text, address);
        EXPECT_EQ(problem.empty(), c.ok) << c.text << ": " << problem;
        if (c.ok) {
            EXPECT_EQ(address.text, c.normalised);
        }
        if (!c.ok) {
            EXPECT_NE(problem.find(c.says), std::string::npos) << problem;
        }
    }
}

TEST(MetricsWriter, FamiliesStayTogetherAndLabelsAreEscaped) {
    wlagent::MetricsWriter out;
    out.family("a_total", "counter", "A things");
    out.sample("b", {}, 1);
    out.sample("a_total", {{"model", "we\"b\\x\ny"}}, 2);
    out.sample("b", {{"k", "v"}}, 3.5);
    EXPECT_EQ(out.text(),
              "# HELP a_total A things\n# TYPE a_total counter\na_total{model=\"we\\\"b\\\\x\\ny\"} 2\n"
              "# TYPE b untyped\nb 1\nb{k=\"v\"} 3.5\n");
    EXPECT_EQ(wlagent::metricName("events.20-dropped"), "events_20_dropped");
}

TEST(RenderMetrics, FromStatusAndModels) {
    wljson::Ptr status = wljson::parse(R"({
      "agent":{"version":"1.2","uptime_seconds":7},
      "module":{"host_switch":true,"centre_switch":false},
      "engines":{"bus":{"published":5,"events":{"20":{"dropped":2}}},"telemetry":null},
      "collector":{"state":"running","status":{"backend":"ebpf","watched":[1,2],"lost_kernel":4,"lost_backend":0,
                   "kinds":{"dns":{"received":9,"sent":8,"lost_kernel":1,"lost_queue":2,"lost_socket":3}}}},
      "reports":{"by_type":{"alarm":{"count":3,"lost":1,"last":1700000000}},"unreadable":1,"too_large":1,"alarms_evicted":0},
      "forwarder":{"sinks":{"http":{"up":false,"sent":10,"failed":2,"backlog_bytes":300}},"spool":{"bytes":99,"dropped":1}}
    })");
    wljson::Ptr models = wljson::parse(R"([
      {"engine":"host","name":"web","alarms":3,"progress":0.5,"features":12},
      {"engine":"app","name":"shop","alarms":2,"progress":null,"features":null}])");
    std::string text = wlagent::renderMetrics(status.get(), models.get());
    for (const char* line : {
             "wl_agent_info{version=\"1.2\"} 1\n",
             "wl_module_switch{switch=\"host\"} 1\n",
             "wl_module_switch{switch=\"centre\"} 0\n",
             "wl_counters_available{library=\"bus\"} 1\n",
             "wl_counters_available{library=\"telemetry\"} 0\n",
             "wl_bus_published 5\n",
             "wl_bus_dropped{scope=\"events.20\"} 2\n",
             "wl_collector_up{state=\"running\"} 1\n",
             "wl_collector_watched_pids{backend=\"ebpf\"} 2\n",
             "wl_collector_events_lost_total{kind=\"dns\",stage=\"kernel\"} 1\n",
             "wl_collector_events_lost_total{kind=\"dns\",stage=\"user\"} 2\n",
             "wl_collector_events_lost_total{kind=\"dns\",stage=\"socket\"} 3\n",
             "wl_reports_total{type=\"alarm\"} 3\n",
             "wl_reports_lost_total{type=\"alarm\"} 1\n",
             "wl_reports_unreadable_total 2\n",
             "wl_forwarder_sink_up{sink=\"http\"} 0\n",
             "wl_forwarder_failed_total{sink=\"http\"} 2\n",
             "wl_spool_dropped_total 1\n",
             "wl_model_learning_progress{engine=\"host\",model=\"web\"} 0.5\n",
             "wl_model_alarms_total{engine=\"app\",model=\"shop\"} 2\n",
             "wl_alarms_total{engine=\"host\"} 3\n",
         }) {
        EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
    }
    EXPECT_EQ(text.find("model=\"shop\"} NaN"), std::string::npos);  // unknown progress is left out
    EXPECT_EQ(text.find("wl_telemetry_"), std::string::npos);
}

// One HTTP exchange with the server over loopback.
std::string httpExchange(unsigned port, const std::string& request) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return "";
    }
    (void)!::write(fd, request.data(), request.size());
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    ::close(fd);
    return out;
}

unsigned freePort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

TEST(MetricsServer, ServesHealthAndMetricsOnlyByGet) {
    bool healthy = true;
    wlagent::MetricsServer server(
        [&](std::string& why) {
            why = "the module is not loaded";
            return healthy;
        },
        [] { return std::string("wl_up 1\n"); });
    unsigned port = freePort();
    wlagent::ListenAddress where;
    ASSERT_EQ(wlagent::parseListenAddress("127.0.0.1:" + std::to_string(port), where), "");
    ASSERT_EQ(server.start(where), "");
    struct Case {
        std::string request;
        const char* status;
        const char* body;
    } cases[] = {
        {"GET /healthz HTTP/1.0\r\n\r\n", "200", "ok\n"},
        {"GET /metrics HTTP/1.0\r\n\r\n", "200", "wl_up 1\n"},
        {"POST /metrics HTTP/1.0\r\nContent-Length: 3\r\n\r\nabc", "405", "only GET"},
        {"GET /secret HTTP/1.0\r\n\r\n", "404", "not found"},
        {"GET /metrics HTTP/1.0\r\nX-Big: " + std::string(40000, 'a') + "\r\n\r\n", "431", ""},
    };
    for (const Case& c : cases) {
        std::string answer = httpExchange(port, c.request);
        // The status line: "HTTP/1.x NNN ..."
        EXPECT_EQ(answer.substr(0, 5) + answer.substr(9, 3), std::string("HTTP/") + c.status)
            << c.request.substr(0, 40) << " -> " << answer.substr(0, 80);
        EXPECT_NE(answer.find(c.body), std::string::npos) << answer.substr(0, 200);
        if (c.request.size() > 30000) {
            EXPECT_EQ(answer.find("wl_up"), std::string::npos);  // headers beyond the bound
        }
    }
    healthy = false;
    std::string answer = httpExchange(port, "GET /healthz HTTP/1.0\r\n\r\n");
    EXPECT_EQ(answer.substr(9, 3), "503") << answer;
    EXPECT_NE(answer.find("unhealthy: the module is not loaded"), std::string::npos);
}

TEST(MetricsServer, RefusesToServeTwiceOnOnePort) {
    wlagent::MetricsServer first([](std::string&) { return true; }, [] { return std::string(); });
    wlagent::MetricsServer second([](std::string&) { return true; }, [] { return std::string(); });
    wlagent::ListenAddress where;
    ASSERT_EQ(wlagent::parseListenAddress("127.0.0.1:" + std::to_string(freePort()), where), "");
    ASSERT_EQ(first.start(where), "");
    EXPECT_NE(second.start(where).find("cannot serve metrics on"), std::string::npos);
}

}  // namespace
