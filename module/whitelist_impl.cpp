#define WL_LOG_SOURCE "whitelist_impl"

#include "whitelist_impl.h"

#include "host_json.h"
#include "whitelist_api.h"
#include "wl_log.h"

namespace {
struct task_handler_st {
    unsigned int opr_code;
    int (*run)(cJSON* root);
};

// The runtime-application handlers get the base operation numbers here; the
// debug channel gives them the high ones, and they accept both.
const task_handler_st kTaskHandlers[] = {
    {1, [](cJSON* root) { return whitelist_base_task_start(root); }},
    {2, [](cJSON* root) { return whitelist_base_task_interact(2, root); }},
    {3, [](cJSON* root) { return whitelist_base_task_interact(3, root); }},
    {4, [](cJSON* root) { return whitelist_base_task_interact(4, root); }},
    {5, [](cJSON* root) { return whitelist_upload_org_log(root, 0); }},
    {6, [](cJSON* root) { return whitelist_base_task_delete(6, root); }},
    {7, [](cJSON* root) { return whitelist_base_task_feedback(7, root); }},
    {101, [](cJSON* root) { return whitelist_rasp_task_start(root); }},
    {102, [](cJSON* root) { return whitelist_rasp_task_interact(2, root); }},
    {103, [](cJSON* root) { return whitelist_rasp_task_interact(3, root); }},
    {104, [](cJSON* root) { return whitelist_rasp_task_interact(4, root); }},
    {105, [](cJSON* root) { return whitelist_upload_rasp_org_log(root, 0); }},
    {106, [](cJSON* root) { return whitelist_rasp_task_delete(6, root); }},
};

const task_handler_st* find_task_handler(unsigned int opr_code) {
    for (const auto& handler : kTaskHandlers) {
        if (handler.opr_code == opr_code) return &handler;
    }
    return nullptr;
}

}  // namespace

unsigned int whitelist_task_push_fn(unsigned long ctx1, unsigned long ctx2, const char* msg, unsigned int length) {
    if (msg == nullptr || length == 0) {
        WL_LOG(LOG_LVL_WARN, "ipc task push invalid parameter msg");
        return WL_ERR_INVALID_PARAM;
    }
    WL_LOG(LOG_LVL_INFO, "recv msg: %s", msg);

    JsonTree root(cJSON_Parse(msg));
    if (!root) {
        WL_LOG(LOG_LVL_ERROR, "json parse error");
        return WL_ERR_FAILED;
    }
    const cJSON* code = cJSON_GetObjectItem(root.get(), "opr_code");
    if (!cJSON_IsNumber(code)) {
        WL_LOG(LOG_LVL_ERROR, "invalid json type");
        return WL_ERR_FAILED;
    }
    int opr_code = code->valueint;
    if (opr_code != 0) {
        // base_engine_on guards the runtime-application commands as well.
        if (g_whitelist_context.base_engine_on == 0) {
            WL_LOG(LOG_LVL_INFO, "The engine is shut down and does not accept operations");
            return WL_ERR_FAILED;
        }
        // A refused start is not remembered: the manager sends it again.
        if (whitelist_is_start_opr(opr_code) && g_whitelist_context.asset_ready == 0) {
            WL_LOG(LOG_LVL_WARN, "The start cmd needs to wait for the asset to be ready");
            return WL_ERR_FAILED;
        }
        const task_handler_st* handler = find_task_handler(static_cast<unsigned int>(opr_code));
        if (handler != nullptr) return handler->run(root.get()) == WL_TASK_OK ? 0u : WL_ERR_FAILED;
    }
    // An unknown command counts as handled.
    WL_LOG(LOG_LVL_INFO, "invalid opr code %d", opr_code);
    return 0;
}
