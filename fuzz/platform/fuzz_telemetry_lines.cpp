// The telemetry line assembler: a probe's stream in arbitrary pieces, with a
// small line limit so that refusals are reached.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "line_assembler.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const size_t maxLine = 1 + data[0] % 80;
    const size_t piece = 1 + data[1] % 32;
    const char* bytes = reinterpret_cast<const char*>(data + 2);
    const size_t total = size - 2;
    size_t accounted = 0;  // bytes of lines kept or refused
    size_t lines = 0;
    orv_rasp::LineAssembler assembler(
        maxLine,
        [&](const std::string& line) {
            FUZZ_CHECK(!line.empty() && line.size() <= maxLine);
            FUZZ_CHECK(line.find('\n') == std::string::npos);
            accounted += line.size();
            ++lines;
        },
        [&](orv_rasp::LineRefusal reason, size_t length) {
            FUZZ_CHECK(reason != orv_rasp::LineRefusal::TooLong || length > maxLine);
            accounted += length;
            ++lines;
        });
    for (size_t done = 0; done < total; done += piece) {
        assembler.feed(bytes + done, total - done < piece ? total - done : piece);
    }
    assembler.finish();
    // Every byte but the newlines belongs to exactly one line, kept or refused.
    size_t newlines = 0;
    for (size_t i = 0; i < total; ++i) newlines += bytes[i] == '\n';
    FUZZ_CHECK(accounted + newlines <= total);
    (void)lines;
    return 0;
}
