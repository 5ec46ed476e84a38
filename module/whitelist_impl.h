// Task dispatch, engine switches and timers, log retention, open-port report.
#ifndef WL_WHITELIST_IMPL_H
#define WL_WHITELIST_IMPL_H

#include "kem_result.h"

#include "whitelist.h"

struct cJSON;

// Result codes.
#define WL_ERR_FAILED KEM_E_FAIL
#define WL_ERR_INVALID_PARAM KEM_E_INVALIDARG
#define WL_ERR_NO_INTERFACE KEM_E_NOINTERFACE

// The origin-log directories are emptied when they exceed this many bytes.
#define WL_ORIGIN_LOG_LIMIT 0xc800000LL

extern "C" {
// Task-push handler "WL_HDL".
unsigned int whitelist_task_push_fn(unsigned long ctx1, unsigned long ctx2, const char* msg, unsigned int length);

// Both engines, their model data, all timers. 0 on success.
int whitelist_init_engine(void);
int whitelist_engine_switch(void);
int whitelist_rasp_switch(void);
void init_whitelist_timer(WhitelistContext* context);
void init_whitelist_rasp_timer(WhitelistContext* context);
void uninit_whitelist_timer(WhitelistContext* context);
void uninit_whitelist_rasp_timer(WhitelistContext* context);
void clean_whitelist_ori_log(void);
void clean_whitelist_raspori_log(void);
int check_dump_path(const char* path);

// Open-port process report (report type 6).
void upload_openport_process(void);
cJSON* get_openport_process_json(void);
cJSON* whitelist_get_asset_info(int kind);
int whitelist_find_app_name(cJSON* tree, cJSON* entry, int pid);
unsigned long long str2number(const char* text);

// Origin-log upload commands (opr 5 and 105).
int whitelist_upload_org_log(cJSON* root, int unused);
int whitelist_upload_rasp_org_log(cJSON* root, int unused);
}

#endif
