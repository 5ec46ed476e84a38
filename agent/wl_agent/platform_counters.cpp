#include "platform_counters.h"

#include <dlfcn.h>

#include <vector>

namespace wlagent {
namespace {
constexpr int kFirstSize = 4096;
constexpr int kMaxSize = 1 << 20;
}  // namespace

std::string callCounters(CountersFn fn) {
    if (!fn) return "";
    std::vector<char> buffer(kFirstSize);
    for (int attempt = 0; attempt < 3; ++attempt) {
        int size = static_cast<int>(buffer.size());
        int n = fn(buffer.data(), size);
        if (n < 0) return "";
        if (n < size) return std::string(buffer.data(), static_cast<size_t>(n));
        if (n >= kMaxSize) return "";
        buffer.assign(static_cast<size_t>(n) + 1, '\0');  // counters may grow between calls
    }
    return "";
}

CountersFn findCounters(const char* name, const std::string& libraryPath) {
    if (void* fn = ::dlsym(RTLD_DEFAULT, name)) return reinterpret_cast<CountersFn>(fn);
    void* handle = ::dlopen(libraryPath.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (!handle) return nullptr;
    void* fn = ::dlsym(handle, name);
    // The module holds its own reference, so the library stays after this.
    ::dlclose(handle);
    return reinterpret_cast<CountersFn>(fn);
}

std::string busCountersJson(const std::string& root) {
    return callCounters(findCounters("tulmb_counters_json", root + "/agent_plugins/libtulmb.1.so"));
}

std::string moduleCountersJson(const std::string& root) {
    return callCounters(findCounters("whitelist_counters_json", root + "/lib/libwhitelist.so"));
}

std::string telemetryCountersJson(const std::string& root) {
    return callCounters(findCounters("orv_rasp_counters_json", root + "/agent_plugins/liborv_rasp.50.so"));
}

}  // namespace wlagent
