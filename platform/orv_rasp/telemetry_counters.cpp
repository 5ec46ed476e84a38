#include "telemetry_counters.h"

namespace orv_rasp {

std::string TelemetryCounters::toJson() const {
    const std::pair<const char*, const std::atomic<std::uint64_t>*> fields[] = {
        {"connections", &connections},
        {"active", &active},
        {"refused_peers", &refused_peers},
        {"refused_busy", &refused_busy},
        {"refused_pid", &refused_pid},
        {"lines", &lines},
        {"dropped_lines", &dropped_lines},
        {"oversize_lines", &oversize_lines},
        {"idle_closed", &idle_closed},
        {"overflow_closed", &overflow_closed},
        {"errors", &errors},
    };
    std::string out = "{";
    for (const auto& field : fields) {
        if (out.size() > 1) out += ',';
        out += '"';
        out += field.first;
        out += "\":";
        out += std::to_string(field.second->load());
    }
    out += '}';
    return out;
}

}  // namespace orv_rasp
