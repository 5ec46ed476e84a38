// Any bytes a process sends to port 53: a name comes out only for a query,
// and it is printable and bounded.
#include <cstdint>
#include <cstdlib>

#include "dns_query.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::optional<std::string> name = wlc::parseDnsQueryName(data, size);
    if (!name) return 0;
    if (name->empty() || name->size() > 253) std::abort();
    for (char c : *name) {
        if (c <= 0x20 || c >= 0x7f) std::abort();
    }
    return 0;
}
