// Port filter file and the config centre's switch.
#ifndef WL_CONFIG_H
#define WL_CONFIG_H

#include "whitelist.h"

extern "C" {
// 0, or -1 when the port file can't be loaded. The filtered ports are nodes of
// the context's list, freed by whitelist_unload_config.
int whitelist_load_config(WhitelistContext* context);
// No result: frees the list's nodes; a second call frees nothing.
void whitelist_unload_config(WhitelistContext* context);
// No result: asks the config centre for the switch; a failure is logged only.
void req_whitelist_conf_from_cfg(WhitelistContext* context);
// No result. data stays the caller's; user is the context given to kem_ipc_msg_recv.
void whitelist_cfg_update(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, const void* data, unsigned int size,
                          void* user);
// No result: applies the switch in the reply; data (size bytes, not
// zero-terminated) stays the caller's.
void whitelist_cfg_reply_fn(int status, unsigned int cmd, const void* data, unsigned int size);

// Debug and status IPC point "wl_dbg". No results: the two status handlers
// answer "recv_succ"; the command handler answers nothing. msg stays the caller's.
void white_list_status_handler(unsigned long ctx1, unsigned long ctx2, unsigned int cmd);
void white_list_obtain_run_status(unsigned long ctx1, unsigned long ctx2, unsigned int cmd);
void whitelist_dbg_ipc_fn(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, const char* msg);
}

#endif
