#include "operator_services.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>

#include "child_supervisor.h"
#include "collector_client.h"
#include "config_centre.h"
#include "control_server.h"
#include "control_service.h"
#include "json_util.h"
#include "metrics_server.h"
#include "metrics_text.h"
#include "model_catalogue.h"
#include "platform_counters.h"
#include "runtime_symbols.h"

namespace wlagent {
namespace {

constexpr std::time_t kHeartbeatLimit = 10;  // main loop silent this long: unhealthy
constexpr std::time_t kCollectorCacheSeconds = 2;
constexpr int kCollectorTimeoutMs = 1000;
constexpr auto kSwitchWait = std::chrono::seconds(5);
constexpr std::streamsize kMaxStatusFile = 1 << 20;

std::string stateWord(ChildSupervisor::State state) {
    switch (state) {
        case ChildSupervisor::State::Idle: return "idle";
        case ChildSupervisor::State::Running: return "running";
        case ChildSupervisor::State::Waiting: return "restarting";
        case ChildSupervisor::State::GaveUp: return "gave up";
        case ChildSupervisor::State::Missing: return "missing";
        case ChildSupervisor::State::Stopped: return "stopped";
    }
    return "unknown";
}

}  // namespace

const char* agentVersion() { return WL_AGENT_VERSION; }

std::string metricsListenSetting(const AgentConfig& config, std::vector<std::string>& problems) {
    std::string listen = config.getText("metrics", "listen", "");
    if (listen.empty()) return "";
    ListenAddress address;
    std::string problem = parseListenAddress(listen, address);
    if (!problem.empty()) {
        problems.push_back("[metrics] " + problem + "; metrics stay off");
        return "";
    }
    return address.text;
}

std::string readForwarderStatus(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return "";
    std::string text(kMaxStatusFile + 1, '\0');
    in.read(&text[0], kMaxStatusFile + 1);
    text.resize(static_cast<size_t>(in.gcount()));
    if (text.size() > static_cast<size_t>(kMaxStatusFile)) return "";
    wljson::Ptr status = wljson::parse(text);
    if (!cJSON_IsObject(status.get())) return "";
    const cJSON* pid = wljson::get(status.get(), "pid");
    bool running = cJSON_IsNumber(pid) && pid->valuedouble > 0 && ::kill(static_cast<pid_t>(pid->valuedouble), 0) == 0;
    cJSON_DeleteItemFromObjectCaseSensitive(status.get(), "running");
    cJSON_AddBoolToObject(status.get(), "running", running);
    return wljson::print(status.get());
}

OperatorServices::OperatorServices(std::string root, std::string configFile, std::string version)
    : m_root(std::move(root)),
      m_configFile(std::move(configFile)),
      m_version(std::move(version)),
      m_started(std::time(nullptr)) {
    m_heartbeat = m_started;
}

OperatorServices::~OperatorServices() {
    // The servers go first: their threads call back into this object.
    m_metrics.reset();
    m_control.reset();
}

void OperatorServices::replaySpool(std::vector<std::string>& problems) {
    m_ledger.replaySpool(m_root + "/var/spool/manager", problems);
}

void OperatorServices::start(const AgentConfig& config, const std::string& collectorSocket,
                             const std::function<void(const std::string&)>& say) {
    m_collectorSocket = collectorSocket;
    std::vector<std::string> problems;
    std::string listen = metricsListenSetting(config, problems);
    for (const std::string& problem : problems) say(config.path() + ": " + problem);

    StatusSources sources;
    sources.version = m_version;
    sources.root = m_root;
    sources.configFile = m_configFile;
    sources.started = m_started;
    sources.moduleLoaded = [this] { return m_moduleLoaded.load(); };
    sources.hostSwitch = [] { return moduleSwitchOn(); };
    sources.centreSwitch = [this] { return m_centreOn.load(); };
    sources.busCounters = [this] { return busCountersJson(m_root); };
    sources.telemetryCounters = [this] { return telemetryCountersJson(m_root); };
    sources.moduleCounters = [this] { return moduleCountersJson(m_root); };
    sources.collectorState = [this] {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        return m_collectorState;
    };
    sources.collectorStatus = [this](std::string& error) { return collectorStatus(error); };
    sources.forwarderStatus = [this] { return readForwarderStatus(m_root + "/var/spool/forward_status.json"); };
    sources.catalogue = [this] { return readCatalogue(m_root); };
    sources.setModule = [this](bool on) { return setModule(on); };
    sources.metricsListen = [this] { return m_metricsListen; };
    sources.serviceCounters = [this] {
        cJSON* out = cJSON_CreateObject();
        cJSON* control = cJSON_AddObjectToObject(out, "control");
        wljson::addU64(control, "refused_peers", m_control ? m_control->refusedPeers() : 0);
        wljson::addU64(control, "refused_busy", m_control ? m_control->refusedBusy() : 0);
        wljson::addU64(control, "bad_requests", m_control ? m_control->badRequests() : 0);
        cJSON* metrics = cJSON_AddObjectToObject(out, "metrics");
        wljson::addU64(metrics, "served", m_metrics ? m_metrics->served() : 0);
        wljson::addU64(metrics, "refused", m_metrics ? m_metrics->refused() : 0);
        return out;
    };
    m_service.reset(new ControlService(sources, m_ledger));

    m_control.reset(new ControlServer([this](const std::string& line) { return m_service->handle(line); }));
    std::string problem = m_control->start(m_root + "/var/run/wl-agent.sock");
    if (!problem.empty()) {
        say("control socket: " + problem + "; wlctl cannot reach this agent");
    }

    if (listen.empty()) return;
    ListenAddress address;
    parseListenAddress(listen, address);
    m_metrics.reset(new MetricsServer([this](std::string& why) { return healthy(why); },
                                      [this] {
                                          wljson::Ptr status(m_service->status());
                                          wljson::Ptr models(m_service->models());
                                          return renderMetrics(status.get(), models.get());
                                      }));
    problem = m_metrics->start(address);
    if (!problem.empty()) {
        say(problem + "; metrics stay off");
        m_metrics.reset();
        return;
    }
    m_metricsListen = address.text;
    say("health and metrics on http://" + address.text + "/healthz and /metrics");
}

void OperatorServices::poll(ConfigCentre& centre, const ChildSupervisor* collector) {
    m_heartbeat = std::time(nullptr);
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        m_collectorState = collector ? stateWord(collector->state()) : "not started";
    }
    m_centreOn = centre.isOn();
    std::lock_guard<std::mutex> lock(m_switchMutex);
    if (m_pendingSwitch < 0) return;
    centre.setSwitch(m_pendingSwitch == 1);
    m_centreOn = centre.isOn();
    m_pendingSwitch = -1;
    ++m_switchesDone;
    m_switchDone.notify_all();
}

std::string OperatorServices::setModule(bool on) {
    std::unique_lock<std::mutex> lock(m_switchMutex);
    m_pendingSwitch = on ? 1 : 0;
    uint64_t before = m_switchesDone;
    if (!m_switchDone.wait_for(lock, kSwitchWait, [&] { return m_switchesDone != before; })) {
        return "the agent's main loop did not take the switch within 5 seconds";
    }
    return "";
}

std::string OperatorServices::collectorStatus(std::string& error) {
    std::lock_guard<std::mutex> lock(m_collectorMutex);
    std::time_t now = std::time(nullptr);
    if (now - m_collectorAsked >= kCollectorCacheSeconds || now < m_collectorAsked) {
        wlctl::CollectorReply reply = wlctl::queryCollector(m_collectorSocket, kCollectorTimeoutMs);
        m_collectorCache = reply.error.empty() ? reply.statusJson : "";
        m_collectorError = reply.error;
        m_collectorAsked = now;
    }
    error = m_collectorError;
    return m_collectorCache;
}

bool OperatorServices::healthy(std::string& why) const {
    std::time_t silent = std::time(nullptr) - m_heartbeat.load();
    if (!m_moduleLoaded) {
        why = "the module is not loaded";
        return false;
    }
    if (silent > kHeartbeatLimit) {
        why = "the agent's main loop has not run for " + std::to_string(silent) + " s";
        return false;
    }
    return true;
}

}  // namespace wlagent
