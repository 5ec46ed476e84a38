// The task socket's request lines, one per input line.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "request_line.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string name = "unset";
        unsigned long length = 0;
        taskpush::LineResult result = taskpush::parse_request_line(text.substr(start, end - start), &name, &length);
        if (result == taskpush::LineResult::Ok) {
            FUZZ_CHECK(!name.empty());
            FUZZ_CHECK(length <= taskpush::kMaxBody);
            FUZZ_CHECK(name.find_first_of(" \n") == std::string::npos);
        }
        start = end + 1;
    }
    return 0;
}
