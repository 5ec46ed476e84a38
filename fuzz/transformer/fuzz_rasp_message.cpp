// Telemetry message text into a runtime-application record, then the filter.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "fuzz_common.h"
#include "transformer.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    silenceLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Transformer transformer;
    static std::set<std::string> localIps = {"127.0.0.1", "10.0.0.1", ""};
    _RASP_EVENTINFO event;
    transformer.initRaspInfo(event);
    transformer.judgeEventType(std::string(reinterpret_cast<const char*>(data), size), event);
    // Defaults survive empty values.
    FUZZ_CHECK(!event.protocol.empty());
    FUZZ_CHECK(!event.model_status.empty());
    transformer.filterRaspEvent(event, localIps);
    return 0;
}
