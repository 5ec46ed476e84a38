#define WL_LOG_SOURCE "whitelist"

#include <cjson/cJSON.h>

#include "config.h"
#include "file_upload_utils.h"
#include "host_json.h"
#include "kem_ipc.h"
#include "kem_status.h"
#include "whitelist_api.h"
#include "whitelist_impl.h"
#include "whitelist_upload.h"
#include "wl_log.h"

namespace {
constexpr const char kReceived[] = "recv_succ";
// The agent core's status word: the status call moves it from 1 to 2.
constexpr int kKemStatusAsked = 1;
constexpr int kKemStatusAnswered = 2;

add_upload_file_fn g_add_upload_file_slot = nullptr;

void reply_received(unsigned long ctx1, unsigned long ctx2, unsigned int cmd) {
    kem_ipc_response(ctx1, ctx2, cmd, 0, kReceived, sizeof kReceived - 1);
}

int upload_one_file(cJSON* root) {
    const cJSON* path = cJSON_GetObjectItem(root, "path");
    WL_LOG(LOG_LVL_INFO, "start upload file");
    // A debugging tool sends this; without a path there is nothing to upload.
    if (!cJSON_IsString(path)) {
        WL_LOG(LOG_LVL_WARN, "upload file without path, ignored");
        return WL_TASK_REFUSED;
    }
    add_upload_file_fn upload = add_upload_file_symbol(g_add_upload_file_slot);
    if (upload == nullptr) return WL_TASK_REFUSED;
    return upload(WL_UPLOAD_KIND_ORIGIN_LOG, path->valuestring);
}

struct dbg_command_st {
    unsigned int opr_code;
    int (*run)(cJSON* root);
};

// No gates here, and the runtime-application handlers get the command number
// itself.
const dbg_command_st kDbgCommands[] = {
    {0, [](cJSON*) { return whitelist_engine_switch(); }},
    {1, [](cJSON* root) { return whitelist_base_task_start(root); }},
    {2, [](cJSON* root) { return whitelist_base_task_interact(2, root); }},
    {3, [](cJSON* root) { return whitelist_base_task_interact(3, root); }},
    {4, [](cJSON* root) { return whitelist_base_task_interact(4, root); }},
    {6, [](cJSON* root) { return whitelist_base_task_delete(6, root); }},
    {8, upload_one_file},
    {101, [](cJSON* root) { return whitelist_rasp_task_start(root); }},
    {102, [](cJSON* root) { return whitelist_rasp_task_interact(102, root); }},
    {103, [](cJSON* root) { return whitelist_rasp_task_interact(103, root); }},
    {104, [](cJSON* root) { return whitelist_rasp_task_interact(104, root); }},
    {106, [](cJSON* root) { return whitelist_rasp_task_delete(106, root); }},
};

const dbg_command_st* find_dbg_command(unsigned int opr_code) {
    for (const auto& command : kDbgCommands) {
        if (command.opr_code == opr_code) return &command;
    }
    return nullptr;
}
}  // namespace

void white_list_status_handler(unsigned long ctx1, unsigned long ctx2, unsigned int cmd) {
    WL_LOG(LOG_LVL_INFO, "white_list_status_handler");
    if (get_kem_status() == kKemStatusAsked) set_kem_status(kKemStatusAnswered);
    reply_received(ctx1, ctx2, cmd);
}

void white_list_obtain_run_status(unsigned long ctx1, unsigned long ctx2, unsigned int cmd) {
    WL_LOG(LOG_LVL_INFO, "==white_list_obtain_run_status");
    reply_received(ctx1, ctx2, cmd);
}

void whitelist_dbg_ipc_fn(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, const char* msg) {
    WL_LOG(LOG_LVL_INFO, "recv ipc cmd %d. msg %s", static_cast<int>(cmd), msg != nullptr ? msg : "(null)");
    if (msg == nullptr) {
        WL_LOG(LOG_LVL_ERROR, "recv msg is null");
        return;
    }
    JsonTree root(cJSON_Parse(msg));
    if (!cJSON_IsObject(root.get())) {
        WL_LOG(LOG_LVL_WARN, "invalid input msg");
        return;
    }
    const cJSON* code = cJSON_GetObjectItem(root.get(), "opr_code");
    if (!cJSON_IsNumber(code)) {
        WL_LOG(LOG_LVL_WARN, "invalid input msg");
        return;
    }
    const dbg_command_st* command = find_dbg_command(static_cast<unsigned int>(code->valueint));
    // Results are not reported: the sender gets no reply from this handler.
    if (command != nullptr) command->run(root.get());
}
