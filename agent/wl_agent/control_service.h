// Answers the control socket's requests from what the agent knows: itself,
// the switches, the platform libraries' counters, the collector, the reports
// that went by, the forwarder's status file and the model catalogue.
#ifndef WL_AGENT_CONTROL_SERVICE_H
#define WL_AGENT_CONTROL_SERVICE_H

#include <cjson/cJSON.h>

#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "model_catalogue.h"
#include "report_ledger.h"

namespace wlagent {

// Where the service's facts come from; each may be left empty.
struct StatusSources {
    std::string version;
    std::string root;
    std::string configFile;
    std::time_t started = 0;
    std::function<bool()> moduleLoaded;
    std::function<bool()> hostSwitch;                // g_ms_conf, the white-list module's word
    std::function<bool()> centreSwitch;              // the config centre's answer
    std::function<std::string()> busCounters;        // JSON object text, "" unknown
    std::function<std::string()> telemetryCounters;  // JSON object text, "" unknown
    std::function<std::string()> moduleCounters;     // the engines' queues; JSON object text, "" unknown
    // The collector: its state word, and its own status JSON or an error.
    std::function<std::string()> collectorState;
    std::function<std::string(std::string& error)> collectorStatus;
    std::function<std::string()> forwarderStatus;  // the status file's text, "" when absent
    std::function<std::vector<CatalogueEntry>()> catalogue;
    std::function<cJSON*()> serviceCounters;  // control socket and metrics counters
    // Sets the config centre's switch; "" when done, else why not.
    std::function<std::string(bool on)> setModule;
    std::function<std::string()> metricsListen;  // "" when off
};

class ControlService {
public:
    ControlService(StatusSources sources, const ReportLedger& ledger);

    // One request line to one reply line.
    std::string handle(const std::string& request);

    // The views, also used by the metrics endpoint. The caller owns them.
    cJSON* status();
    cJSON* models();

private:
    cJSON* modelView(const std::string& engine, const std::string& name);

    StatusSources m_sources;
    const ReportLedger& m_ledger;
};

// Learning progress from a model's status: 0..1, or a negative value when
// the status does not say.
double learningProgress(const cJSON* status);
// Sum of the numbers under keys that mention a drop or a loss, at any depth.
double sumDrops(const cJSON* counters);

}  // namespace wlagent

#endif
