// wl-forward: delivers what wl-agent spools for the manager to the sinks
// named in the agent's settings, and tells how that goes in
// <root>/var/spool/forward_status.json. Started and watched by wl-agent.
#include <signal.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <curl/curl.h>

#include "agent_config.h"
#include "forward_settings.h"
#include "sinks/file_sink.h"
#include "sinks/http_sink.h"
#include "sinks/nats_sink.h"
#include "sinks/syslog_sink.h"
#include "sink_runner.h"
#include "spool_state.h"
#include "status_file.h"

namespace {

constexpr int kCannotRun = 3;

void say(const std::string& line) {
    char stamp[32];
    std::time_t now = std::time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::printf("%s wl-forward: %s\n", stamp, line.c_str());
    std::fflush(stdout);
}

class Stopper {
public:
    bool wait(std::chrono::milliseconds pause) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait_for(lock, pause, [this] { return m_stop; });
        return !m_stop;
    }
    void stop() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
        m_cv.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_stop = false;
};

struct Entry {
    std::string name;
    bool enabled;
    std::unique_ptr<wlforward::Sink> sink;
    std::unique_ptr<wlforward::SinkRunner> runner;
};

wlforward::RunnerLimits limits(size_t lines, size_t bytes, const wlforward::RetrySettings& retry) {
    wlforward::RunnerLimits l;
    l.batchLines = lines;
    l.batchBytes = bytes;
    l.retryInitial = std::chrono::milliseconds(retry.initialMs);
    l.retryMax = std::chrono::milliseconds(retry.maxMs);
    return l;
}

}  // namespace

int main(int argc, char** argv) {
    std::string root, config;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if ((a == "--root" || a == "--config") && i + 1 < argc) {
            (a == "--root" ? root : config) = argv[++i];
        } else {
            std::fprintf(stderr, "usage: wl-forward --root DIR [--config FILE]\n");
            return 2;
        }
    }
    if (root.empty()) {
        std::fprintf(stderr, "wl-forward: --root is needed\n");
        return 2;
    }
    if (config.empty()) config = root + "/config/agent.conf";

    std::vector<std::string> problems;
    wlagent::AgentConfig settingsFile = wlagent::AgentConfig::load(config, problems);
    wlforward::ForwardSettings s = wlforward::readForwardSettings(settingsFile, root, problems);
    for (const std::string& p : problems) say(config + ": " + p);

    // Signals are taken by the main thread alone.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        say("cannot start libcurl");
        return kCannotRun;
    }

    const wlspool::Stream reports = wlspool::reportStream(root);
    const wlspool::Stream uploads = wlspool::uploadStream(root);
    const std::string uploadsDir = root + "/var/spool/uploads";
    std::vector<Entry> entries;
    auto add = [&](const char* name, bool enabled, std::unique_ptr<wlforward::Sink> sink, wlforward::RunnerLimits l) {
        Entry e{name, enabled, nullptr, nullptr};
        if (enabled) {
            e.sink = std::move(sink);
            e.runner = std::make_unique<wlforward::SinkRunner>(*e.sink, reports, uploads, uploadsDir, l, say);
        }
        entries.push_back(std::move(e));
    };
    add("file", s.file.enabled, std::make_unique<wlforward::FileSink>(s.file), limits(1000, 4u << 20, s.file.retry));
    add("syslog", s.syslog.enabled, std::make_unique<wlforward::SyslogSink>(s.syslog),
        limits(100, 1u << 20, s.syslog.retry));
    add("http", s.http.enabled, std::make_unique<wlforward::HttpSink>(s.http),
        limits(s.http.batchSize, s.http.batchBytes, s.http.retry));
    add("nats", s.nats.enabled, std::make_unique<wlforward::NatsSink>(s.nats),
        limits(s.nats.batchSize, 4u << 20, s.nats.retry));

    Stopper stopper;
    std::vector<std::thread> threads;
    std::string on;
    for (Entry& e : entries) {
        if (!e.runner) continue;
        on += (on.empty() ? "" : ", ") + e.name;
        threads.emplace_back([&stopper, runner = e.runner.get()] {
            runner->run([&stopper](std::chrono::milliseconds pause) { return stopper.wait(pause); });
        });
    }
    say("forwarding " + reports.live() + " to: " + (on.empty() ? "no sink (all are off)" : on));

    const std::string statusPath = root + "/var/spool/forward_status.json";
    wlspool::SpoolReader reportReader(reports), uploadReader(uploads);
    std::string lastStatusError;
    for (;;) {
        std::vector<wlforward::SinkStatus> status;
        for (const Entry& e : entries) {
            wlforward::SinkStatus one;
            one.name = e.name;
            one.enabled = e.enabled;
            if (e.runner) one.counters = e.runner->counters();
            status.push_back(one);
        }
        wlspool::Extent re, ue;
        std::string error;
        if (!reportReader.extent(re, error) || !uploadReader.extent(ue, error) ||
            !wlspool::writeFileAtomic(statusPath, wlforward::formatStatus(::getpid(), status, re, ue), error)) {
            if (error != lastStatusError) say("status: " + error);
            lastStatusError = error;
        } else {
            lastStatusError.clear();
        }
        timespec every{2, 0};
        int sig = sigtimedwait(&stopSignals, nullptr, &every);
        if (sig == SIGTERM || sig == SIGINT) break;
    }
    say("stopping");
    stopper.stop();
    for (std::thread& t : threads) t.join();
    curl_global_cleanup();
    return 0;
}
