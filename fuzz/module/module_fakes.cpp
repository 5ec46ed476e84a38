// What the module's entry points reach beyond model management, which the
// fuzz harness doesn't exercise: the IPC library, the engine switch and the
// timers. Each only counts its calls.
#include <cstdint>

#include "fuzz_module.h"
#include "kem_ipc.h"
#include "whitelist.h"

namespace fuzz_module {
Counts g_counts;
}

using fuzz_module::g_counts;

extern "C" {

int kem_ipc_make_request(kem_ipc_t, kem_addr_t, unsigned int, const void*, unsigned int, kem_ipc_reply_fn, void*, int) {
    ++g_counts.requests;
    return 0;
}

int kem_ipc_response(unsigned long, unsigned long, unsigned int, int, const void*, unsigned int) { return 0; }

void init_whitelist_timer(WhitelistContext*) { ++g_counts.timer_calls; }
void init_whitelist_rasp_timer(WhitelistContext*) { ++g_counts.timer_calls; }
void uninit_whitelist_timer(WhitelistContext*) { ++g_counts.timer_calls; }
void uninit_whitelist_rasp_timer(WhitelistContext*) { ++g_counts.timer_calls; }

int whitelist_engine_switch(void) {
    ++g_counts.engine_switches;
    return 0;
}
}
