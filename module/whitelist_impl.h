// Task dispatch, engine switches and timers, log retention, open-port report.
#ifndef WL_WHITELIST_IMPL_H
#define WL_WHITELIST_IMPL_H

#include "kem_result.h"
#include "whitelist.h"

struct cJSON;

// The agent's result codes (kem_result.h) under the module's names.
#define WL_ERR_FAILED KEM_E_FAIL
#define WL_ERR_INVALID_PARAM KEM_E_INVALIDARG
#define WL_ERR_NO_INTERFACE KEM_E_NOINTERFACE

// Results of the task functions and of the handlers the task and debug
// channels run. The dispatcher answers WL_ERR_FAILED for anything but
// WL_TASK_OK, so the manager sees one kind of failure.
#define WL_TASK_OK 0
#define WL_TASK_REFUSED (-1)   // refused by a model library or an engine, or missing a required part
#define WL_TASK_BAD_COMMAND 2  // null or unparsable command

// Whether an operation code starts models (base 1, runtime-application 101):
// those take the list-of-models form and wait for the asset lists.
inline bool whitelist_is_start_opr(int opr_code) { return opr_code == 1 || opr_code == 101; }

// The origin-log directories are emptied when they exceed this many bytes.
#define WL_ORIGIN_LOG_LIMIT 0xc800000LL

extern "C" {
// Task-push handler "WL_HDL": 0 when handled (an unknown code too),
// WL_ERR_INVALID_PARAM without a message, WL_ERR_FAILED for an unparsable,
// gated or failed command. msg is zero-terminated and stays the caller's.
unsigned int whitelist_task_push_fn(unsigned long ctx1, unsigned long ctx2, const char* msg, unsigned int length);

// Both engines with their model data and timers: WL_TASK_OK when both
// started, otherwise non-zero.
int whitelist_init_engine(void);
// One engine with its model data and timers: WL_TASK_OK, or WL_TASK_REFUSED
// when the engine did not start.
int whitelist_engine_switch(void);
int whitelist_rasp_switch(void);
// No result: init_* starts the group's timers not running yet, uninit_* stops
// them; the handles live in the caller's context.
void init_whitelist_timer(WhitelistContext* context);
void init_whitelist_rasp_timer(WhitelistContext* context);
void uninit_whitelist_timer(WhitelistContext* context);
void uninit_whitelist_rasp_timer(WhitelistContext* context);
// No result: empty an origin-log directory once it exceeds WL_ORIGIN_LOG_LIMIT.
void clean_whitelist_ori_log(void);
void clean_whitelist_raspori_log(void);
// 0, or -1 when the directory cannot be read; path stays the caller's.
int check_dump_path(const char* path);

// Open-port process report (report type 6).
// No result: builds the report and uploads it; a failure is logged only.
void upload_openport_process(void);
// A new array the caller frees with cJSON_Delete, or null when an asset list
// is missing or no memory.
cJSON* get_openport_process_json(void);
// The asset library's tree of that kind, freed by the caller with
// cJSON_Delete, or null.
cJSON* whitelist_get_asset_info(int kind);
// 0 when pid was found in tree (its name, if usable, is copied into entry),
// -1 otherwise; both trees stay the caller's.
int whitelist_find_app_name(cJSON* tree, cJSON* entry, int pid);
// strtoull with base 0; 0 for null. text stays the caller's.
unsigned long long str2number(const char* text);

// Origin-log upload commands (opr 5 and 105): WL_TASK_OK, or WL_ERR_FAILED
// when the directory cannot be read. root is neither read nor freed.
int whitelist_upload_org_log(cJSON* root, int unused);
int whitelist_upload_rasp_org_log(cJSON* root, int unused);
}

#endif
