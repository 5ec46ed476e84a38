// The texts wl-forward reads from disk: spool state, cursors, manifest lines
// and envelopes. Whatever parses must print back to the same meaning.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "envelope.h"
#include "spool_state.h"

#define FUZZ_CHECK(condition)           \
    do {                                \
        if (!(condition)) std::abort(); \
    } while (0)

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);

    wlspool::SpoolState state;
    std::string error;
    if (wlspool::parseState(text, state, error)) {
        wlspool::SpoolState again;
        FUZZ_CHECK(wlspool::parseState(wlspool::formatState(state), again, error));
        FUZZ_CHECK(again.generation == state.generation && again.dropped == state.dropped);
        FUZZ_CHECK(again.files.size() == state.files.size());
        for (size_t i = 0; i < state.files.size(); ++i) {
            FUZZ_CHECK(again.files[i].name == state.files[i].name && again.files[i].ino == state.files[i].ino &&
                       again.files[i].start == state.files[i].start);
            FUZZ_CHECK(state.files[i].name.find('/') == std::string::npos);
        }
    }

    uint64_t offset = 0;
    if (wlspool::parseCursor(text, offset)) {
        uint64_t back = 0;
        FUZZ_CHECK(wlspool::parseCursor(wlspool::formatCursor(offset), back) && back == offset);
    }

    wlforward::UploadEntry entry;
    if (wlforward::parseUploadEntry(text, entry)) {
        FUZZ_CHECK(entry.name.find('/') == std::string::npos && !entry.name.empty() && entry.name[0] != '.');
        FUZZ_CHECK(entry.file == "kind" + std::to_string(entry.kind) + "/" + entry.name);
    }

    wlforward::Route route = wlforward::routeOf(text);
    std::string token = wlforward::subjectToken(route.hostUuid);
    FUZZ_CHECK(!token.empty() && token.size() <= 64);
    FUZZ_CHECK(token.find_first_of(".*> \t\r\n") == std::string::npos);
    return 0;
}
