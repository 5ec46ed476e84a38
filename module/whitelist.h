// Module entry, work thread and the module context.
#ifndef WL_WHITELIST_H
#define WL_WHITELIST_H

#include "orv_sync.h"

struct wl_list_head {
    wl_list_head* next;
    wl_list_head* prev;
};

// One filtered port of whitelist_port.cfg.
struct port_filter_node {
    wl_list_head link;
    int port;
};

struct WhitelistContext {
    int running;
    int asset_ready;
    int base_engine_on;
    void* task_handle;
    void* cfg_ipc;
    void* cfg_addr;
    void* timer_openport;
    void* timer_clean_log;
    void* timer_base_open_process;
    void* timer_rasp_open_process;
    void* timer_clean_rasp_log;
    wl_list_head port_filter_list;
    int rasp_engine_on;
};

#if defined(__i386__)
static_assert(sizeof(WhitelistContext) == 14 * 4, "WhitelistContext is 14 32-bit words");
#endif

extern "C" {
extern WhitelistContext g_whitelist_context;
extern orv_event_t g_vr_event;

// Starts the work thread; the result of cl_ev_create_isolated_thread, or 0 when
// it already runs.
unsigned int orv_whitelist_init(void);

// Start-up and the main loop, then nothing: the thread lives as long as the
// process unless start-up fails.
void* work_thread_func(void* arg);
void check_asset_ready(WhitelistContext* context);
// Up to 20 tries of vrccl_action_init, 3 seconds apart. 0 or -1.
int whitelist_init_vrccl(void);

// The work thread in steps, so that each can run on its own: start-up up to
// the main loop (0), or -1 after a fatal step and the tear-down; one pass of
// the main loop; the tear-down of a failed start-up.
int whitelist_startup(WhitelistContext* context);
void whitelist_main_loop_pass(WhitelistContext* context);
void whitelist_teardown(WhitelistContext* context);

void initialize_log(void);
// Registers "wl_dbg", the task channel "WL_HDL" and the config-centre
// endpoint and address. 0, or -1 with the failure logged.
int init_ipc_handle(WhitelistContext* context);
void uninitialize_ipc_handler(WhitelistContext* context);
}

#endif
