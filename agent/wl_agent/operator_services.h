// What the agent offers its operator: the report ledger, the control socket
// for wlctl, and the optional /healthz and /metrics endpoint. The main thread
// owns the config centre and the collector's supervisor, so it pumps poll().
#ifndef WL_AGENT_OPERATOR_SERVICES_H
#define WL_AGENT_OPERATOR_SERVICES_H

#include <atomic>
#include <condition_variable>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "agent_config.h"
#include "report_ledger.h"

namespace wlagent {

class ConfigCentre;
class ChildSupervisor;
class ControlServer;
class ControlService;
class MetricsServer;

// The version this agent was built as.
const char* agentVersion();
// [metrics] listen: "" when off; a bad value is named in problems and leaves it off.
std::string metricsListenSetting(const AgentConfig& config, std::vector<std::string>& problems);
// The forwarder's status file with "running" added (its pid is alive), or "".
std::string readForwarderStatus(const std::string& path);

class OperatorServices {
public:
    OperatorServices(std::string root, std::string configFile, std::string version);
    ~OperatorServices();
    OperatorServices(const OperatorServices&) = delete;
    OperatorServices& operator=(const OperatorServices&) = delete;

    ReportLedger& ledger() { return m_ledger; }
    // Reads the spool into the ledger; problems are appended.
    void replaySpool(std::vector<std::string>& problems);
    // The control socket, and the metrics endpoint when configured. Problems
    // are said; a metrics endpoint that cannot start leaves the agent running.
    void start(const AgentConfig& config, const std::string& collectorSocket,
               const std::function<void(const std::string&)>& say);
    void setModuleLoaded() { m_moduleLoaded = true; }
    // Main thread, every pass: heartbeat, switch requests, collector state.
    // collector: null when it was not started.
    void poll(ConfigCentre& centre, const ChildSupervisor* collector);

private:
    std::string setModule(bool on);
    std::string collectorStatus(std::string& error);
    bool healthy(std::string& why) const;

    std::string m_root;
    std::string m_configFile;
    std::string m_version;
    std::string m_collectorSocket;
    std::time_t m_started;
    ReportLedger m_ledger;

    std::atomic<bool> m_moduleLoaded{false};
    std::atomic<bool> m_centreOn{true};
    std::atomic<std::time_t> m_heartbeat{0};
    std::mutex m_stateMutex;
    std::string m_collectorState = "not started";
    std::string m_metricsListen;

    // A module switch asked for on the control socket, done by the main thread.
    std::mutex m_switchMutex;
    std::condition_variable m_switchDone;
    int m_pendingSwitch = -1;  // -1 none, 0 off, 1 on
    uint64_t m_switchesDone = 0;

    std::mutex m_collectorMutex;
    std::time_t m_collectorAsked = 0;
    std::string m_collectorCache;
    std::string m_collectorError;

    std::unique_ptr<ControlService> m_service;
    std::unique_ptr<ControlServer> m_control;
    std::unique_ptr<MetricsServer> m_metrics;
};

}  // namespace wlagent

#endif
