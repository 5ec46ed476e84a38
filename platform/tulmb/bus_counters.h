// What the bus did, for the operator: totals, and the same per event ID.
#ifndef TULMB_BUS_COUNTERS_H
#define TULMB_BUS_COUNTERS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace tulmb {

struct EventCounters {
    std::uint64_t published = 0;  // accepted by Invoke, queued or delivered at once
    std::uint64_t delivered = 0;  // OnEvent calls that returned
    std::uint64_t dropped = 0;    // refused for a full queue
    std::uint64_t errors = 0;     // OnEvent calls that threw
};

struct BusCounters {
    EventCounters total;
    std::uint64_t dropped_full_events = 0;  // the queue held its most events
    std::uint64_t dropped_full_bytes = 0;   // the queue held its most bytes
    std::map<unsigned int, EventCounters> by_event;

    // queued_*: the queue at this moment.
    std::string toJson(std::size_t queued_events, std::size_t queued_bytes) const;
};

}  // namespace tulmb

#endif
