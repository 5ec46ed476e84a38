// Debug commands on the "wl_dbg" point: no gates, the same handlers.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_module.h"
#include "config.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_module::setUp();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_module::reset();
    const std::string msg(reinterpret_cast<const char*>(data), size);
    whitelist_dbg_ipc_fn(0, 0, 7, msg.c_str());
    FUZZ_CHECK(fuzz_module::g_counts.engine_switches <= 1);
    return 0;
}
