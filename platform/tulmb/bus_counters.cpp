#include "bus_counters.h"

namespace tulmb {

namespace {
void field(std::string& out, const char* name, std::uint64_t value) {
    if (out.back() != '{') out += ',';
    out += '"';
    out += name;
    out += "\":";
    out += std::to_string(value);
}
}  // namespace

std::string BusCounters::toJson(std::size_t queued_events, std::size_t queued_bytes) const {
    std::string out = "{";
    field(out, "published", total.published);
    field(out, "delivered", total.delivered);
    field(out, "dropped_full_events", dropped_full_events);
    field(out, "dropped_full_bytes", dropped_full_bytes);
    field(out, "queued_events", queued_events);
    field(out, "queued_bytes", queued_bytes);
    field(out, "delivery_errors", total.errors);
    out += ",\"events\":{";
    bool first = true;
    for (const auto& entry : by_event) {
        if (!first) out += ',';
        first = false;
        out += '"' + std::to_string(entry.first) + "\":{";
        field(out, "published", entry.second.published);
        field(out, "delivered", entry.second.delivered);
        field(out, "dropped", entry.second.dropped);
        field(out, "delivery_errors", entry.second.errors);
        out += '}';
    }
    out += "}}";
    return out;
}

}  // namespace tulmb
