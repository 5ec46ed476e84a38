#define WL_LOG_SOURCE "whitelist"

#include "whitelist.h"

#include <cstdlib>

#include "cl_ev.h"
#include "wl_log.h"

extern "C" {
__attribute__((visibility("default"))) WhitelistContext g_whitelist_context = {};
__attribute__((visibility("default"))) orv_event_t g_vr_event = nullptr;
}

namespace {
// The agent cannot go on without the module's thread; it is told so by the
// exit code.
constexpr int kThreadCreateExitCode = 1012;
}  // namespace

unsigned int orv_whitelist_init(void) {
    WL_LOG(LOG_LVL_INFO, "poll to host_state.\n");
    // The agent calls this once; a repeated call must not start a second thread.
    if (g_whitelist_context.running == 1) {
        WL_LOG(LOG_LVL_WARN, "host_state thread already runing.\n");
        return 0;
    }
    g_whitelist_context.running = 1;
    unsigned long thread_id = 0;
    int ret = cl_ev_create_isolated_thread(&thread_id, 0, work_thread_func, nullptr);
    if (ret == -1) {
        WL_LOG(LOG_LVL_ERROR, "create cap_process error\n");
        g_whitelist_context.running = 0;
        std::exit(kThreadCreateExitCode);
    }
    return static_cast<unsigned int>(ret);
}

void* work_thread_func(void* arg) {
    if (whitelist_startup(&g_whitelist_context) != 0) return nullptr;
    for (;;) whitelist_main_loop_pass(&g_whitelist_context);
}
