// Origin-log text into sorted host records.
#include <cstddef>
#include <cstdint>
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
    std::vector<_BASE_EVENTINFO> events;
    const bool accepted = transformer.judgeEventType(std::string(reinterpret_cast<const char*>(data), size), events);
    FUZZ_CHECK(accepted || events.empty());
    for (size_t i = 1; i < events.size(); ++i) FUZZ_CHECK(!comp(events[i], events[i - 1]));
    return 0;
}
