#define WL_LOG_SOURCE "whitelist"

#include "cl_ev.h"
#include "module_switch.h"
#include "task_push.h"
#include "vrccl_action.h"
#include "whitelist.h"
#include "whitelist_api.h"
#include "wl_clock.h"
#include "wl_log.h"

namespace {
constexpr unsigned int kSwitchedOffPauseUs = 5000000;
constexpr int kOfflineWaitMs = 2000;

bool module_switched_off() {
    const void* conf = module_switch_conf();
    // The agent must export g_ms_conf. Without it the switch cannot be read:
    // the module runs as switched on instead of reading through a null pointer.
    if (conf == nullptr) {
        WL_LOG(LOG_LVL_ERROR, "module switch unreadable without g_ms_conf, running as switched on");
        return false;
    }
    return ms_conf_word(conf, kMsSwitchingOnOffset) != 0 && ms_conf_word(conf, kMsWhiteListOnOffset) == 0;
}

// The collector went offline: reconnect and rebuild its filter. The event is
// reset last, so an offline signal raised during the restart is absorbed.
void restart_collector() {
    WL_LOG(LOG_LVL_INFO, "vr offline , start reinit");
    vrccl_action_free();
    if (whitelist_init_vrccl() != 0) WL_LOG(LOG_LVL_WARN, "init vrccl function fail");
    reload_vrccl_filter();
    orv_event_reset(g_vr_event);
}
}  // namespace

void whitelist_main_loop_pass(WhitelistContext* context) {
    cl_ev_loop_nowait(1);
    cl_event_loop_once();
    // Switched off, timers and IPC are still pumped above; tasks and the
    // offline event wait for the first active pass.
    if (module_switched_off()) {
        wl_usleep(kSwitchedOffPauseUs);
        return;
    }
    task_loop_once(context->task_handle);
    if (orv_event_timedwait(g_vr_event, kOfflineWaitMs, 0) != 0) return;
    restart_collector();
}
