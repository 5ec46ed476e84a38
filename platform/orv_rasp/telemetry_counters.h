// What the telemetry socket let in and what it turned away, for the
// operator's tools.
#ifndef ORV_RASP_TELEMETRY_COUNTERS_H
#define ORV_RASP_TELEMETRY_COUNTERS_H

#include <atomic>
#include <cstdint>
#include <string>

namespace orv_rasp {

struct TelemetryCounters {
    std::atomic<std::uint64_t> connections{0};    // accepted
    std::atomic<std::uint64_t> active{0};         // open now
    std::atomic<std::uint64_t> refused_peers{0};  // not root, not a known application
    std::atomic<std::uint64_t> refused_busy{0};   // over the connection limits
    std::atomic<std::uint64_t> refused_pid{0};    // a line speaking for another process
    std::atomic<std::uint64_t> lines{0};          // handed on
    std::atomic<std::uint64_t> dropped_lines{0};  // blank, malformed, cut off, or nobody to take them
    std::atomic<std::uint64_t> oversize_lines{0};
    std::atomic<std::uint64_t> idle_closed{0};      // a partial line that stalled
    std::atomic<std::uint64_t> overflow_closed{0};  // over the bytes all connections may buffer
    std::atomic<std::uint64_t> errors{0};           // failures inside the server thread

    std::string toJson() const;
};

}  // namespace orv_rasp

#endif
