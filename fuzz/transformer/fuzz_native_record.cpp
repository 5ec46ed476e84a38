// Native collector records: random bytes, an event name from the table or a
// random one, through the three conversions. Records are zero-padded to
// kNativeRecordMaxSize, as the publisher guarantees.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "transformer.h"

namespace {

bool isZero(const _BASE_EVENTINFO& event) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&event);
    for (size_t i = 0; i < sizeof(event); ++i) {
        if (bytes[i] != 0) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    silenceLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Transformer transformer;
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all;
        for (const auto& entry : transformer.eventTypeMap) all.push_back(entry.first);
        return all;
    }();
    static std::set<std::string> localIps = {"10.0.0.1"};
    if (size < 2) return 0;
    const uint8_t kind = data[0] % 3;
    const uint8_t nameChoice = data[1];
    data += 2;
    size -= 2;

    std::vector<unsigned char> native(kNativeRecordMaxSize, 0);
    std::memcpy(native.data(), data, std::min(size, native.size()));
    const size_t nameOffset = kind == 2 ? 36 : 32;
    if (nameChoice < names.size()) {
        const std::string& name = names[nameChoice];
        std::memcpy(native.data() + nameOffset, name.c_str(), name.size() + 1);
    }

    auto event = std::make_unique<_BASE_EVENTINFO>();
    bool converted = false;
    switch (kind) {
        case 0:
            converted =
                transformer.TransformProcessMsg(*reinterpret_cast<const process_event_info*>(native.data()), *event);
            break;
        case 1:
            converted = transformer.TransformFileMsg(*reinterpret_cast<const file_event_info*>(native.data()), *event);
            break;
        default:
            converted = transformer.TransformNetEvent(*reinterpret_cast<const net_event_info*>(native.data()), *event);
            break;
    }
    if (nameChoice < names.size()) FUZZ_CHECK(converted);
    if (!converted) FUZZ_CHECK(isZero(*event));
    // The areas no conversion owns stay zero.
    FUZZ_CHECK(event->reserved0 == 0 && event->origin_log_flag == 0 && event->match_verdict == 0);
    const unsigned char* tail = reinterpret_cast<const unsigned char*>(event->model_status);
    for (size_t i = 0; i < sizeof(event->model_status) + sizeof(event->model_name); ++i) FUZZ_CHECK(tail[i] == 0);
    transformer.filterBaseEvent(*event, localIps);
    return 0;
}
