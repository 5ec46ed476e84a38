// Alarm lists in both forms. spiltDnsIp throws std::out_of_range by contract
// on a lone trailing slash; that one exception is expected.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "transformer.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    silenceLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Transformer transformer;
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<_BASE_EVENTINFO> base;
    try {
        transformer.judgeAlarmEventType(text, base);
    } catch (const std::out_of_range&) {
    }
    std::vector<_RASP_EVENTINFO> rasp;
    transformer.judgeAlarmEventType(text, rasp);
    for (const _RASP_EVENTINFO& event : rasp) FUZZ_CHECK(event.protocol == "tcp" && event.match_verdict == 2);
    return 0;
}
