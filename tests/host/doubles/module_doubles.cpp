// The other areas of the module, as the host calls them.
#include <cjson/cJSON.h>

#include "doubles_state.h"
#include "whitelist.h"
#include "whitelist_api.h"
#include "whitelist_impl.h"
#include "whitelist_mb.h"

using host_doubles::record;
using host_doubles::state;

namespace {

const char* context_tag(const WhitelistContext* context) {
    return context == &g_whitelist_context ? "(ctx)" : "(other)";
}

// Records the call with its operation number and the tree it was given.
int model_command(const std::string& name, int opr, cJSON* root) {
    std::string entry = opr < 0 ? name : name + "(" + std::to_string(opr) + ")";
    record(entry);
    char* printed = root != nullptr ? cJSON_PrintUnformatted(root) : nullptr;
    std::lock_guard<std::mutex> lock(state().mutex);
    state().last_tree = printed != nullptr ? printed : "";
    cJSON_free(printed);
    auto it = state().script.handler_results.find(name);
    return it == state().script.handler_results.end() ? 0 : it->second;
}

}  // namespace

extern "C" {

int whitelist_msgbus_init(void) {
    record("whitelist_msgbus_init");
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().script.msgbus_init_result;
}

void whitelist_msgbus_uninit(void) { record("whitelist_msgbus_uninit"); }

void transmit_rasp_data(const char* text) { record("transmit_rasp_data"); }

int whitelist_init_rasp_handler(wl_rasp_callback callback, void* user) {
    record(callback == transmit_rasp_data ? "whitelist_init_rasp_handler(transmit_rasp_data)"
                                          : "whitelist_init_rasp_handler(other)");
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().script.rasp_handler_result;
}

int whitelist_init_engine(void) {
    record("whitelist_init_engine");
    int result;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        result = state().script.init_engine_result;
    }
    if (result == 0) g_whitelist_context.base_engine_on = 1;
    return result;
}

int whitelist_engine_switch(void) { return model_command("whitelist_engine_switch", -1, nullptr); }

void init_whitelist_timer(WhitelistContext* context) { record(std::string("init_whitelist_timer") + context_tag(context)); }
void init_whitelist_rasp_timer(WhitelistContext* context) {
    record(std::string("init_whitelist_rasp_timer") + context_tag(context));
}
void uninit_whitelist_timer(WhitelistContext* context) {
    record(std::string("uninit_whitelist_timer") + context_tag(context));
}
void uninit_whitelist_rasp_timer(WhitelistContext* context) {
    record(std::string("uninit_whitelist_rasp_timer") + context_tag(context));
}

void upload_openport_process(void) { record("upload_openport_process"); }
int whitelist_base_update_open_process(void) {
    record("whitelist_base_update_open_process");
    return 0;
}
void whitelist_rasp_update_open_process(void) { record("whitelist_rasp_update_open_process"); }
void reload_vrccl_filter(void) { record("reload_vrccl_filter"); }

int whitelist_base_task_start(cJSON* root) { return model_command("whitelist_base_task_start", -1, root); }
int whitelist_rasp_task_start(cJSON* root) { return model_command("whitelist_rasp_task_start", -1, root); }
int whitelist_base_task_interact(int opr, cJSON* root) {
    return model_command("whitelist_base_task_interact", opr, root);
}
int whitelist_rasp_task_interact(int opr, cJSON* root) {
    return model_command("whitelist_rasp_task_interact", opr, root);
}
int whitelist_base_task_delete(int opr, cJSON* root) { return model_command("whitelist_base_task_delete", opr, root); }
int whitelist_rasp_task_delete(int opr, cJSON* root) { return model_command("whitelist_rasp_task_delete", opr, root); }
int whitelist_base_task_feedback(int opr, cJSON* root) {
    return model_command("whitelist_base_task_feedback", opr, root);
}
int whitelist_upload_org_log(cJSON* root, int unused) { return model_command("whitelist_upload_org_log", -1, root); }
int whitelist_upload_rasp_org_log(cJSON* root, int unused) {
    return model_command("whitelist_upload_rasp_org_log", -1, root);
}

}  // extern "C"
