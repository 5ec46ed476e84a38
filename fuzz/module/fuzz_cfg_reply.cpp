// The config centre's reply: JSON text without a terminator.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "config.h"
#include "fuzz_module.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_module::setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_module::reset();
    // An exact-size copy, so that reading past the reply is caught.
    std::unique_ptr<char[]> reply(new char[size ? size : 1]);
    if (size) std::memcpy(reply.get(), data, size);
    whitelist_cfg_reply_fn(0, 1004, size ? reply.get() : nullptr, static_cast<unsigned int>(size));
    // Each element switches both timers at most once.
    FUZZ_CHECK(fuzz_module::g_counts.timer_calls % 2 == 0);
    FUZZ_CHECK(fuzz_module::g_counts.timer_calls <= 2 * size);
    return 0;
}
