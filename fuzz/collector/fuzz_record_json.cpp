// Any line of a recording: a line that reads as a record writes back to a
// line that reads as the same record.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "native_encoder.h"
#include "record_json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string line(reinterpret_cast<const char*>(data), size);
    wlc::ActionRecord record;
    std::string error;
    if (!wlc::recordFromJson(line, record, error)) {
        if (error.empty()) std::abort();  // a refusal always says why
        return 0;
    }
    wlc::ActionRecord again;
    if (!wlc::recordFromJson(wlc::recordToJson(record), again, error)) std::abort();
    if (wlc::encodeNative(again) != wlc::encodeNative(record)) std::abort();
    return 0;
}
