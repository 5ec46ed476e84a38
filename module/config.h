// Port filter file and the config centre's switch.
#ifndef WL_CONFIG_H
#define WL_CONFIG_H

#include "whitelist.h"

extern "C" {
int whitelist_load_config(WhitelistContext* context);
void whitelist_unload_config(WhitelistContext* context);
void req_whitelist_conf_from_cfg(WhitelistContext* context);
void whitelist_cfg_update(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, const void* data, unsigned int size,
                          void* user);
void whitelist_cfg_reply_fn(int status, unsigned int cmd, const void* data, unsigned int size);

// Debug and status IPC point "wl_dbg".
void white_list_status_handler(unsigned long ctx1, unsigned long ctx2, unsigned int cmd);
void white_list_obtain_run_status(unsigned long ctx1, unsigned long ctx2, unsigned int cmd);
void whitelist_dbg_ipc_fn(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, const char* msg);
}

#endif
