// Model management as the host and the engines call it: each call is recorded
// by name; the refresh returns the result scripted for it.
#include "call_log.h"
#include "whitelist_api.h"
#include "whitelist_impl.h"

extern "C" {

void whitelist_base_load_model_data(void) { call_log::record("whitelist_base_load_model_data"); }
void whitelist_rasp_load_model_data(void) { call_log::record("whitelist_rasp_load_model_data"); }
void upload_openport_process(void) { call_log::record("upload_openport_process"); }
int whitelist_base_update_open_process(void) {
    return call_log::scripted("whitelist_base_update_open_process", "whitelist_base_update_open_process");
}
void whitelist_rasp_update_open_process(void) { call_log::record("whitelist_rasp_update_open_process"); }

}  // extern "C"
