// The other areas of the module, as the host calls them; the model-management
// refreshes come from wl_fake_model_management.
#include <cjson/cJSON.h>

#include "host_doubles.h"
#include "whitelist.h"
#include "whitelist_api.h"
#include "whitelist_impl.h"
#include "whitelist_mb.h"

using namespace host_doubles;

namespace {

// Records the handler with its operation number; returns its scripted result.
int model_command(const std::string& name, int opr = -1) {
    return scripted(opr < 0 ? name : name + "(" + std::to_string(opr) + ")", name);
}

std::string with_context(const char* name, const WhitelistContext* context) {
    return std::string(name) + (context == &g_whitelist_context ? "(ctx)" : "(other)");
}

}  // namespace

extern "C" {

int whitelist_msgbus_init(void) { return scripted("whitelist_msgbus_init", "whitelist_msgbus_init") ? 0 : 1; }
void whitelist_msgbus_uninit(void) { record("whitelist_msgbus_uninit"); }
void transmit_rasp_data(const char*) { record("transmit_rasp_data"); }

int whitelist_init_rasp_handler(wl_rasp_callback callback, void*) {
    return scripted(callback == transmit_rasp_data ? "whitelist_init_rasp_handler(transmit_rasp_data)"
                                                   : "whitelist_init_rasp_handler(other)",
                    "whitelist_init_rasp_handler");
}

int whitelist_init_engine(void) {
    int result = scripted("whitelist_init_engine", "whitelist_init_engine");
    if (result == 0) g_whitelist_context.base_engine_on = 1;
    return result;
}

void init_whitelist_timer(WhitelistContext* c) { record(with_context("init_whitelist_timer", c)); }
void init_whitelist_rasp_timer(WhitelistContext* c) { record(with_context("init_whitelist_rasp_timer", c)); }
void uninit_whitelist_timer(WhitelistContext* c) { record(with_context("uninit_whitelist_timer", c)); }
void uninit_whitelist_rasp_timer(WhitelistContext* c) { record(with_context("uninit_whitelist_rasp_timer", c)); }

void reload_vrccl_filter(void) { record("reload_vrccl_filter"); }

int whitelist_engine_switch(void) { return model_command("whitelist_engine_switch"); }
int whitelist_base_task_start(cJSON*) { return model_command("whitelist_base_task_start"); }
int whitelist_rasp_task_start(cJSON*) { return model_command("whitelist_rasp_task_start"); }
int whitelist_base_task_interact(int opr, cJSON*) { return model_command("whitelist_base_task_interact", opr); }
int whitelist_rasp_task_interact(int opr, cJSON*) { return model_command("whitelist_rasp_task_interact", opr); }
int whitelist_base_task_delete(int opr, cJSON*) { return model_command("whitelist_base_task_delete", opr); }
int whitelist_rasp_task_delete(int opr, cJSON*) { return model_command("whitelist_rasp_task_delete", opr); }
int whitelist_base_task_feedback(int opr, cJSON*) { return model_command("whitelist_base_task_feedback", opr); }
int whitelist_upload_org_log(cJSON*, int) { return model_command("whitelist_upload_org_log"); }
int whitelist_upload_rasp_org_log(cJSON*, int) { return model_command("whitelist_upload_rasp_org_log"); }

}  // extern "C"
