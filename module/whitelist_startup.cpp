#define WL_LOG_SOURCE "whitelist"

#include <sys/prctl.h>

#include "asset_collection.h"
#include "cl_ev.h"
#include "config.h"
#include "dirutils.h"
#include "ipc_handler.h"
#include "kem_ipc.h"
#include "task_push.h"
#include "vrccl_action.h"
#include "whitelist.h"
#include "whitelist_api.h"
#include "whitelist_impl.h"
#include "whitelist_mb.h"
#include "whitelist_upload.h"
#include "wl_clock.h"
#include "wl_log.h"

namespace {
constexpr unsigned int kRetryPauseUs = 3000000;
constexpr int kVrcclTries = 20;
// The asset lists the open-port report reads: open ports, processes and the
// two application lists.
constexpr int kAwaitedAssetKinds[] = {ASSET_KIND_OPEN_PORT, ASSET_KIND_PROCESS, ASSET_KIND_APP_EXTRA, ASSET_KIND_APP};

// reg_ipc_handler keeps the pointer, so the table lives as long as the module.
ipc_handler_table g_wl_dbg_handlers = {};

bool all_assets_ready() {
    for (int kind : kAwaitedAssetKinds) {
        if (get_asset_info_state_v2(kind, 0) == 0) return false;
    }
    return true;
}

// Steps 1 to 16; a non-zero result means a fatal step failed and logged.
int run_startup_steps(WhitelistContext* context) {
    prctl(PR_SET_NAME, "white_list");

    if (orv_event_init(&g_vr_event, 0, 1) != 0) {
        WL_LOG(LOG_LVL_ERROR, "init task push start event fail");
        return -1;
    }
    initialize_log();

    if (init_ipc_handle(context) != 0) {
        WL_LOG(LOG_LVL_ERROR, "init ipc handler fail");
        return -1;
    }
    int ret = whitelist_load_config(context);
    if (ret != 0) {
        WL_LOG(LOG_LVL_ERROR, "init port filter list. ret %d", ret);
        WL_LOG(LOG_LVL_ERROR, "init resource fail");
        return -1;
    }
    if (whitelist_init_upload_lock() != 0) {
        WL_LOG(LOG_LVL_ERROR, "init upload lock fail");
        return -1;
    }
    if (whitelist_msgbus_init() == 0) {
        WL_LOG(LOG_LVL_ERROR, "init msgbus fail");
        return -1;
    }
    if (whitelist_init_rasp_handler(transmit_rasp_data, nullptr) != 0) {
        WL_LOG(LOG_LVL_ERROR, "init msgbus handler fail");
        return -1;
    }
    // Without the collector the module still serves commands; an offline
    // event later makes it try again.
    if (whitelist_init_vrccl() != 0) WL_LOG(LOG_LVL_WARN, "init vrccl function fail");
    WL_LOG(LOG_LVL_INFO, "work_thread_func init suc.\n");

    if (whitelist_init_engine() != 0) {
        WL_LOG(LOG_LVL_WARN, "init engine fail");
        return -1;
    }
    check_asset_ready(context);
    context->asset_ready = 1;

    upload_openport_process();
    whitelist_base_update_open_process();
    whitelist_rasp_update_open_process();

    ret = kem_ipc_msg_recv(context->cfg_ipc, whitelist_cfg_update, context);
    if (ret != 0) {
        WL_LOG(LOG_LVL_ERROR, "kem_ipc_msg_recv failed, ret: %d.", ret);
        // The text names a time-out; the agent's log readers know it by it.
        WL_LOG(LOG_LVL_WARN, "asset collection timeout");
        return -1;
    }
    WL_LOG(LOG_LVL_INFO, "reg cfg success");
    req_whitelist_conf_from_cfg(context);
    return 0;
}
}  // namespace

void initialize_log(void) {
    WL_LOG(LOG_LVL_INFO, "=initialize_log");
    char path[1024] = {};
    dirutils_path_transform("@/../var/log/agent/white_list", path, sizeof path);
    autolog_init(path, 5);
}

int init_ipc_handle(WhitelistContext* context) {
    g_wl_dbg_handlers = {white_list_status_handler, white_list_obtain_run_status, nullptr, whitelist_dbg_ipc_fn};
    int ret = reg_ipc_handler("wl_dbg", &g_wl_dbg_handlers);
    if (ret != 0) {
        WL_LOG(LOG_LVL_ERROR, "init_ipc_handle failed, ipc name: ht_newhdl, error: %d", ret);
        return -1;
    }
    context->task_handle = push_task_reg_handler("WL_HDL", whitelist_task_push_fn, 0);
    if (context->task_handle == nullptr) {
        WL_LOG(LOG_LVL_ERROR, "ipc task reg handler fail");
        return -1;
    }
    context->cfg_ipc = kem_ipc_create("wl_hdl", 0);
    if (context->cfg_ipc == nullptr) {
        WL_LOG(LOG_LVL_ERROR, "create cfg ipc handle failure!");
        return -1;
    }
    context->cfg_addr = kem_addr_create("acfg", 1, 2);
    if (context->cfg_addr == nullptr) {
        WL_LOG(LOG_LVL_ERROR, "create cfg addr failed.");
        return -1;
    }
    WL_LOG(LOG_LVL_INFO, "reg ipc success");
    return 0;
}

void uninitialize_ipc_handler(WhitelistContext* context) {
    if (context->task_handle != nullptr) {
        push_task_unreg_handler("WL_HDL");
        context->task_handle = nullptr;
    }
    if (context->cfg_ipc != nullptr) {
        kem_ipc_destroy(context->cfg_ipc);
        context->cfg_ipc = nullptr;
    }
    if (context->cfg_addr != nullptr) {
        kem_addr_destroy(context->cfg_addr);
        context->cfg_addr = nullptr;
    }
    unreg_ipc_handler();
}

int whitelist_init_vrccl(void) {
    for (int attempt = 0; attempt < kVrcclTries; ++attempt) {
        if (vrccl_action_init() == 0) return 0;
        wl_usleep(kRetryPauseUs);
    }
    return -1;
}

void check_asset_ready(WhitelistContext* context) {
    WL_LOG(LOG_LVL_INFO, "check_asset_ready, wait asset");
    int times = 0;
    // No time limit: without its asset lists the open-port report is wrong,
    // and timers and non-start commands are served meanwhile.
    while (!all_assets_ready()) {
        cl_ev_loop_nowait(1);
        cl_event_loop_once();
        task_loop_once(context->task_handle);
        wl_usleep(kRetryPauseUs);
        ++times;
    }
    WL_LOG(LOG_LVL_INFO, "asset finish. times %d", times);
}

// Stops neither timers nor engines, and leaves `running` set so that the
// agent's later calls only report the thread as running.
void whitelist_teardown(WhitelistContext* context) {
    whitelist_uninit_upload_lock();
    whitelist_unload_config(context);
    uninitialize_ipc_handler(context);
    whitelist_msgbus_uninit();
    vrccl_action_free();
    autolog_deinit();
    if (g_vr_event != nullptr) orv_event_destroy(g_vr_event);
    g_vr_event = nullptr;
}

int whitelist_startup(WhitelistContext* context) {
    if (run_startup_steps(context) == 0) return 0;
    whitelist_teardown(context);
    return -1;
}
