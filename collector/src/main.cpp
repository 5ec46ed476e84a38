// wl-collector: the agent's action collector. See docs/collector.md.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "collector_log.h"
#include "collector_service.h"
#include "kernel_probe.h"
#include "replay.h"

namespace {

// Exit statuses the agent's supervisor reads.
constexpr int kExitUsage = 2;
constexpr int kExitCannotRunHere = 3;

struct Options {
    std::string socketPath;
    std::string backend = "auto";
    std::string recordPath;
    std::string replayPath;
    double rate = 0;
    bool exitWhenDone = false;
    bool probe = false;
    bool json = false;
};

void usage(FILE* out) {
    std::fprintf(out,
                 "usage: wl-collector [--socket PATH] [--backend auto|ebpf|portable] [--record FILE]\n"
                 "       wl-collector --replay FILE [--rate N] [--exit-when-done] [--socket PATH]\n"
                 "       wl-collector probe [--json]\n"
                 "  --socket PATH     where to listen (default <install root>/var/run/vrccl.sock)\n"
                 "  --backend NAME    capture back-end; auto tries eBPF, then the portable one\n"
                 "  --record FILE     append every record sent, as JSON lines\n"
                 "  --replay FILE     play a recording to the clients that subscribe (no root needed)\n"
                 "  --rate N          replay N records per second (default: as fast as taken)\n"
                 "  --exit-when-done  end the replay once every record is delivered\n"
                 "  probe             what this kernel supports and which back-end would run\n");
}

std::string defaultSocketPath() {
    char exe[PATH_MAX] = {0};
    ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::string path = n > 0 ? std::string(exe, static_cast<size_t>(n)) : "./wl-collector";
    std::string dir = path.substr(0, path.rfind('/'));  // <root>/vr_agent
    return dir.substr(0, dir.rfind('/')) + "/var/run/vrccl.sock";
}

bool parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "wl-collector: %s needs a value\n", a.c_str());
                return false;
            }
            out = argv[++i];
            return true;
        };
        std::string rate;
        if (a == "--socket") {
            if (!value(o.socketPath)) return false;
        } else if (a == "--backend") {
            if (!value(o.backend)) return false;
            if (o.backend != "auto" && o.backend != "ebpf" && o.backend != "portable") {
                std::fprintf(stderr, "wl-collector: unknown back-end '%s' (auto, ebpf or portable)\n",
                             o.backend.c_str());
                return false;
            }
        } else if (a == "--record") {
            if (!value(o.recordPath)) return false;
        } else if (a == "--replay") {
            if (!value(o.replayPath)) return false;
        } else if (a == "--rate") {
            if (!value(rate)) return false;
            char* end = nullptr;
            o.rate = std::strtod(rate.c_str(), &end);
            if (end == rate.c_str() || *end != '\0' || o.rate < 0) {
                std::fprintf(stderr, "wl-collector: --rate needs a number of records per second\n");
                return false;
            }
        } else if (a == "--exit-when-done") {
            o.exitWhenDone = true;
        } else if (a == "probe") {
            o.probe = true;
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "-h" || a == "--help") {
            usage(stdout);
            std::exit(0);
        } else {
            std::fprintf(stderr, "wl-collector: unknown argument %s\n", a.c_str());
            usage(stderr);
            return false;
        }
    }
    if (o.socketPath.empty()) o.socketPath = defaultSocketPath();
    return true;
}

// SIGINT and SIGTERM are taken by one thread, which raises the stop flag.
std::atomic<bool> g_stop{false};

void startSignalWatcher() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);  // before any other thread exists
    std::thread([set] {
        int signal = 0;
        sigwait(&set, &signal);
        g_stop = true;
    }).detach();
}

int runLive(const Options& o) {
    if (::geteuid() != 0) {
        wlc::logLine(
            "must run as root to watch processes (eBPF, netlink and fanotify need it); "
            "the agent goes on without host events");
        return kExitCannotRunHere;
    }
    wlc::ServiceOptions service{o.socketPath, o.recordPath};
    std::unique_ptr<wlc::CollectorService> collector;
    std::string error;
    if (o.backend != "portable") {
        collector = std::make_unique<wlc::CollectorService>(wlc::makeEbpfBackend(), service);
        if (!collector->start(error)) {
            wlc::logLine("eBPF back-end unavailable: %s", error.c_str());
            collector.reset();
            if (o.backend == "ebpf") return kExitCannotRunHere;
        }
    }
    if (!collector) {
        collector = std::make_unique<wlc::CollectorService>(wlc::makePortableBackend(), service);
        if (!collector->start(error)) {
            wlc::logLine("portable back-end unavailable: %s", error.c_str());
            return kExitCannotRunHere;
        }
    }
    wlc::logLine("back-end %s; listening on %s%s%s", collector->backend().name(), o.socketPath.c_str(),
                 o.recordPath.empty() ? "" : "; recording to ", o.recordPath.c_str());
    if (collector->backend().unsupportedKinds() & (1u << static_cast<int>(wlc::EventKind::DnsQuery)))
        wlc::logLine("DNS queries cannot be seen with the %s back-end", collector->backend().name());
    while (!g_stop) std::this_thread::sleep_for(std::chrono::milliseconds(200));
    wlc::logLine("stopping");
    collector->stop();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) return kExitUsage;
    if (options.probe) {
        wlc::ProbeReport report = wlc::probeKernel();
        std::fputs((options.json ? wlc::probeReportJson(report) : wlc::probeReportText(report)).c_str(), stdout);
        return report.backend == "none" ? kExitCannotRunHere : 0;
    }
    startSignalWatcher();
    if (!options.replayPath.empty()) {
        wlc::ReplayOptions replay{options.replayPath, options.socketPath, options.rate, options.exitWhenDone};
        return wlc::runReplay(replay, g_stop);
    }
    return runLive(options);
}
