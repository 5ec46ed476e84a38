// The Prometheus text form of the agent's status and models.
#ifndef WL_AGENT_METRICS_TEXT_H
#define WL_AGENT_METRICS_TEXT_H

#include <cjson/cJSON.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace wlagent {

using MetricLabels = std::vector<std::pair<std::string, std::string>>;

// Families are kept together, in the order first named, as the format needs.
class MetricsWriter {
public:
    void family(const std::string& name, const char* type, const std::string& help);
    void sample(const std::string& name, const MetricLabels& labels, double value);
    std::string text() const;

private:
    struct Family {
        std::string type;
        std::string help;
        std::vector<std::string> samples;
    };
    std::vector<std::string> m_order;
    std::map<std::string, Family> m_families;
};

// A metric name part: [a-zA-Z0-9_], anything else becomes "_".
std::string metricName(const std::string& text);
// A label value with \, " and line breaks escaped.
std::string labelValue(const std::string& text);

// status: ControlService::status(); models: ControlService::models().
std::string renderMetrics(const cJSON* status, const cJSON* models);

}  // namespace wlagent

#endif
