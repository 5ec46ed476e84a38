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

// Every context argument below is g_whitelist_context or a test's own: the
// caller's, and kept by pointer (timers and the config centre call back with
// it), so it must outlive the module.

// The result of cl_ev_create_isolated_thread, or 0 when the thread already
// runs; a thread that cannot start ends the process (exit code 1012).
unsigned int orv_whitelist_init(void);

// Start-up and the main loop, then nothing: null after a failed start-up,
// otherwise no return. arg is not read.
void* work_thread_func(void* arg);
// No result: returns once the asset lists are collected, serving the loops
// and the task channel meanwhile.
void check_asset_ready(WhitelistContext* context);
// 0, or -1 after 20 failed tries of vrccl_action_init 3 seconds apart.
int whitelist_init_vrccl(void);

// The work thread in steps, so that each can run on its own:
// 0 when start-up reached the main loop, -1 after a fatal step and the tear-down.
int whitelist_startup(WhitelistContext* context);
// No result: one pass of the main loop.
void whitelist_main_loop_pass(WhitelistContext* context);
// No result: releases what start-up made, except timers and engines.
void whitelist_teardown(WhitelistContext* context);

// No result: opens the module's log under "@/../var/log/agent/white_list".
void initialize_log(void);
// 0, or -1 with the failure logged: registers "wl_dbg", the task channel
// "WL_HDL" and the config-centre endpoint and address into the context.
int init_ipc_handle(WhitelistContext* context);
// No result: undoes init_ipc_handle and clears the context's handles.
void uninitialize_ipc_handler(WhitelistContext* context);
}

#endif
