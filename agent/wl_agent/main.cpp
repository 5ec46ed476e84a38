// wl-agent: runs the white-list module on this host.
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>
#include <string>

#include "asset_lists.h"
#include "cl_ev.h"
#include "collector_supervisor.h"
#include "config_centre.h"
#include "discovery.h"
#include "forward_settings.h"
#include "forwarder_supervisor.h"
#include "dirutils.h"
#include "host_identity.h"
#include "install_root.h"
#include "operator_services.h"
#include "orv_log.h"
#include "report_spool.h"
#include "runtime_symbols.h"
#include "task_client.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;
volatile std::sig_atomic_t g_flipSwitch = 0;

struct Options {
    std::string root;
    int logLevel = 3;
    bool printReports = false;
    bool moduleOff = false;  // host switch (g_ms_conf)
    bool centreOn = true;    // config centre's answer
    int assetInterval = 60;
    int runSeconds = 0;  // 0: until a signal
    bool collector = true;
    std::string collectorBackend = "auto";
    bool discover = true;
    bool forward = true;  // run wl-forward for the sinks that are on
    std::string config;   // default wlagent::agentConfigPath(root)
    std::string writeDefaultsTo;
};

void usage() {
    std::printf(
        "usage: wl-agent [options]\n"
        "  --root DIR          install root (default: the tree this program was built into)\n"
        "  --log-level N       0..4, default 3 (module logs under <root>/var/log/agent)\n"
        "  --print-reports     print each report to the manager in full\n"
        "  --module-off        start with the host's module switch off for the white-list module\n"
        "  --centre-off        the config centre answers switch_status 0 (timers off)\n"
        "  --asset-interval S  seconds between asset scans (default 60)\n"
        "  --run-seconds N     stop after N seconds (default: run until SIGINT/SIGTERM)\n"
        "  --no-collector      do not start the action collector <root>/vr_agent/wl-collector\n"
        "  --collector-backend auto|ebpf|portable\n"
        "                      the collector's capture back-end (default auto)\n"
        "  --no-discover       start no models for the applications found listening\n"
        "  --no-forward        do not start wl-forward: reports stay in the spool\n"
        "  --config FILE       the agent's settings (default <root>/config/agent.conf,\n"
        "                      /etc/wl-agent/agent.conf for the packaged /opt/wl-agent)\n"
        "  --write-default-config DIR\n"
        "                      write the default configuration files missing from DIR and exit\n"
        "Signals: SIGUSR1 flips the config centre's switch and notifies the module.\n");
}

bool parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto next = [&](const char* what) -> const char* {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "wl-agent: %s needs a value\n", what);
                return nullptr;
            }
            return argv[++i];
        };
        if (a == "--root") {
            const char* v = next("--root");
            if (!v) return false;
            o.root = v;
        } else if (a == "--log-level") {
            const char* v = next("--log-level");
            if (!v) return false;
            o.logLevel = std::atoi(v);
        } else if (a == "--asset-interval") {
            const char* v = next("--asset-interval");
            if (!v) return false;
            o.assetInterval = std::max(1, std::atoi(v));
        } else if (a == "--run-seconds") {
            const char* v = next("--run-seconds");
            if (!v) return false;
            o.runSeconds = std::atoi(v);
        } else if (a == "--collector-backend") {
            const char* v = next("--collector-backend");
            if (!v) return false;
            if (!wlagent::isCollectorBackend(v)) {
                std::fprintf(stderr, "wl-agent: --collector-backend must be auto, ebpf or portable, not %s\n", v);
                return false;
            }
            o.collectorBackend = v;
        } else if (a == "--no-discover") {
            o.discover = false;
        } else if (a == "--config") {
            const char* v = next("--config");
            if (!v) return false;
            o.config = v;
        } else if (a == "--write-default-config") {
            const char* v = next("--write-default-config");
            if (!v) return false;
            o.writeDefaultsTo = v;
        } else if (a == "--no-forward") {
            o.forward = false;
        } else if (a == "--no-collector") {
            o.collector = false;
        } else if (a == "--print-reports") {
            o.printReports = true;
        } else if (a == "--module-off") {
            o.moduleOff = true;
        } else if (a == "--centre-off") {
            o.centreOn = false;
        } else if (a == "-h" || a == "--help") {
            usage();
            std::exit(0);
        } else {
            std::fprintf(stderr, "wl-agent: unknown option %s\n", a.c_str());
            usage();
            return false;
        }
    }
    return true;
}

void onStop(int) { g_stop = 1; }

void say(const std::string& line) {
    std::printf("wl-agent: %s\n", line.c_str());
    std::fflush(stdout);
}
void onFlip(int) { g_flipSwitch = 1; }

// Starts learning for each newly found listening application; what the module
// refuses (it may still be waiting for its assets) is tried again next scan.
class Discovery {
public:
    explicit Discovery(const Options& opt) : m_root(opt.root) {
        if (!opt.discover) {
            m_settings.enabled = false;
            return;
        }
        std::vector<std::string> problems;
        std::string config = opt.config.empty() ? wlagent::agentConfigPath(opt.root) : opt.config;
        m_settings = wlagent::readDiscoverySettings(wlagent::AgentConfig::load(config, problems), problems);
        for (const std::string& problem : problems) say(config + ": " + problem + "; the default stays");
        if (!m_settings.enabled) say("discovery is off (" + config + ")");
    }

    void run(const std::string& openPorts) {
        if (!m_settings.enabled) return;
        std::set<std::string> known = wlagent::modelledPaths(m_root + "/var/base/base_model.cfg");
        known.insert(m_started.begin(), m_started.end());
        for (const auto& proposal : wlagent::proposeModels(openPorts, m_settings, m_root, ::getpid(), known)) {
            wlctl::PushResult result = wlctl::pushTask(m_root + "/var/run/task_push.sock", "WL_HDL",
                                                       wlagent::startCommand(proposal, m_settings.learnMinutes), 10);
            if (result.delivered && result.code == 0) {
                m_started.insert(proposal.path);
                std::string ports;
                for (unsigned port : proposal.ports) ports += (ports.empty() ? "" : ",") + std::to_string(port);
                say("discovered " + proposal.name + " (" + proposal.path + ", ports " + ports + "): learning for " +
                    std::to_string(m_settings.learnMinutes) + " minutes");
            } else if (m_refused.insert(proposal.path).second) {
                say("discovery: the start of " + proposal.name + " was not taken (" +
                    (result.delivered ? wlctl::describeCode(result.code) : result.error) + "); trying again later");
            }
        }
    }

private:
    std::string m_root;
    wlagent::DiscoverySettings m_settings;
    std::set<std::string> m_started;
    std::set<std::string> m_refused;  // told once
};

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    if (!parse(argc, argv, opt)) return 2;
    if (!opt.writeDefaultsTo.empty()) {
        std::string problem = wlagent::writeDefaultConfig(opt.writeDefaultsTo);
        if (!problem.empty()) std::fprintf(stderr, "wl-agent: %s\n", problem.c_str());
        return problem.empty() ? 0 : 1;
    }
    if (opt.root.empty()) opt.root = wlagent::defaultInstallRoot();
    if (opt.config.empty()) opt.config = wlagent::agentConfigPath(opt.root);

    std::string problem = wlagent::layOutInstallRoot(opt.root);
    if (!problem.empty()) {
        std::fprintf(stderr, "wl-agent: %s\n", problem.c_str());
        return 1;
    }
    dirutils_set_install_dir(wlagent::moduleDir(opt.root).c_str());
    error_output_set_level(opt.logLevel);
    std::printf("wl-agent: install root %s, settings %s\n", opt.root.c_str(), opt.config.c_str());

    wlagent::HostIdentity identity = wlagent::readHostIdentity();
    // The spool's bounds and which sinks read it: the agent counts what the
    // bound discards before every sink had it.
    wlforward::ForwardSettings forwarding;
    std::chrono::seconds restartMax = wlagent::ChildSupervisor::kMaxDelay;
    {
        std::vector<std::string> problems;
        const wlagent::AgentConfig settings = wlagent::AgentConfig::load(opt.config, problems);
        forwarding = wlforward::readForwardSettings(settings, opt.root, problems);
        restartMax = std::chrono::seconds(
            settings.getNumber("children", "restart_max_seconds", 1, 3600, restartMax.count(), problems));
        for (const std::string& line : problems) say(opt.config + ": " + line);
    }
    wlagent::ReportSpool spool(opt.root, opt.printReports, forwarding);
    spool.setHostUuid(identity.uuid);
    problem = spool.open();
    if (!problem.empty()) {
        std::fprintf(stderr, "wl-agent: the report spool cannot be used: %s\n", problem.c_str());
        return 1;
    }
    wlagent::bindRuntimeSymbols(&spool, &identity);
    // What was reported before this start stays visible to wlctl, and report
    // ids go on above the ones already spooled.
    wlagent::OperatorServices operatorServices(opt.root, opt.config, wlagent::agentVersion());
    {
        std::vector<std::string> problems;
        operatorServices.replaySpool(problems);
        for (const std::string& line : problems) say("report history: " + line);
        wlagent::bindReportLedger(&operatorServices.ledger());
        wlagent::startSequence(operatorServices.ledger().highestSequence());
    }
    wlagent::setModuleSwitch(opt.moduleOff, !opt.moduleOff);

    // The config centre's callbacks arrive on this thread through its loop.
    cl_ev_current_loop();
    wlagent::ConfigCentre centre(opt.centreOn);
    problem = centre.start();
    if (!problem.empty())
        std::fprintf(stderr, "wl-agent: %s; the module keeps its timers as started\n", problem.c_str());

    // Started before the module, which gives the collector a minute to answer.
    wlagent::SystemProcessControl processes;
    wlagent::CollectorSupervisor collector(
        wlagent::collectorOptions(opt.root, opt.collectorBackend), processes,
        [] { return std::chrono::steady_clock::now(); }, say);
    collector.setMaxDelay(restartMax);
    if (opt.collector) {
        collector.start();
    } else {
        say("collector not started (--no-collector): running without host events");
    }

    // wl-forward takes the spool to the sinks; the agent never waits for it.
    wlagent::ChildSupervisor forwarder(
        wlagent::forwarderSpec(opt.root, opt.config), processes, [] { return std::chrono::steady_clock::now(); }, say);
    forwarder.setMaxDelay(restartMax);
    if (opt.forward && !wlforward::enabledSinks(forwarding).empty()) {
        forwarder.start();
    } else {
        say(opt.forward ? "no sink is enabled: reports stay in the spool" : "forwarder not started (--no-forward)");
    }

    int ports = wlagent::collectAndPublishAssets();
    std::printf("wl-agent: asset lists published (%d listening ports)\n", ports);

    std::string module = wlagent::modulePath(opt.root);
    void* handle = dlopen(module.c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (!handle) {
        std::fprintf(stderr, "wl-agent: cannot load %s: %s\n", module.c_str(), dlerror());
        return 1;
    }
    using InitFn = unsigned int (*)();
    auto init = reinterpret_cast<InitFn>(dlsym(handle, "orv_whitelist_init"));
    if (!init) {
        std::fprintf(stderr, "wl-agent: %s has no orv_whitelist_init\n", module.c_str());
        return 1;
    }
    std::signal(SIGINT, onStop);
    std::signal(SIGTERM, onStop);
    std::signal(SIGUSR1, onFlip);
    std::printf("wl-agent: module loaded, starting it (logs: %s/var/log/agent/white_list)\n", opt.root.c_str());
    std::fflush(stdout);
    init();
    operatorServices.setModuleLoaded();
    {
        std::vector<std::string> problems;
        wlagent::AgentConfig settings = wlagent::AgentConfig::load(opt.config, problems);
        for (const std::string& line : problems) say(line);
        operatorServices.start(settings, wlagent::collectorOptions(opt.root, opt.collectorBackend).socket, say);
    }
    Discovery discovery(opt);

    std::time_t started = std::time(nullptr);
    // The first discovery waits a few seconds for the module to be up.
    std::time_t lastScan = started - std::max(0, opt.assetInterval - 5);
    while (!g_stop) {
        cl_ev_loop_nowait(1);
        cl_event_loop_once();
        if (g_flipSwitch) {
            g_flipSwitch = 0;
            centre.setSwitch(!centre.isOn());
            std::printf("wl-agent: config centre switch now %s\n", centre.isOn() ? "on" : "off");
            std::fflush(stdout);
        }
        std::time_t now = std::time(nullptr);
        if (now - lastScan >= opt.assetInterval) {
            std::string openPorts;
            if (wlagent::collectAndPublishAssets(&openPorts) >= 0) discovery.run(openPorts);
            lastScan = now;
        }
        collector.poll();
        forwarder.poll();
        operatorServices.poll(centre, opt.collector ? &collector : nullptr);
        if (opt.runSeconds > 0 && now - started >= opt.runSeconds) break;
        usleep(200000);
    }
    std::printf("wl-agent: stopping\n");
    std::fflush(stdout);
    collector.stop();
    forwarder.stop();
    // The module has no stop: leave the process without unloading it.
    std::_Exit(0);
}
