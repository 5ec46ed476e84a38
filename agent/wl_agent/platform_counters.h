// Counters of the bus and telemetry libraries the module loads at run time.
// They are asked through their own functions, found in the process; a library
// not loaded (or too old to count) gives no counters.
#ifndef WL_AGENT_PLATFORM_COUNTERS_H
#define WL_AGENT_PLATFORM_COUNTERS_H

#include <string>

namespace wlagent {

// int fn(char* out, int size): the length written, or the size needed when
// size is too small; negative on failure.
using CountersFn = int (*)(char*, int);

// The counters' JSON object text, or "" when fn is null or misbehaves.
std::string callCounters(CountersFn fn);

// fn by name: in the global scope first, then in the library at libraryPath
// if the process already loaded it (never loads it).
CountersFn findCounters(const char* name, const std::string& libraryPath);

std::string busCountersJson(const std::string& root);        // libtulmb
std::string telemetryCountersJson(const std::string& root);  // liborv_rasp
std::string moduleCountersJson(const std::string& root);     // the module's queues

}  // namespace wlagent

#endif
