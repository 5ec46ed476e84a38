#define WL_LOG_SOURCE "whitelist_api"

#include "whitelist_api.h"

#include <cjson/cJSON.h>

#include "whitelist_impl.h"
#include "wl_log.h"

namespace {

// A string member that counts: of string type with a value.
const char* string_member(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItem(object, key);
    if (!cJSON_IsString(item) || !item->valuestring) return nullptr;
    return item->valuestring;
}

// Absent leaves the field alone; any type but JSON true is false.
void read_flag(const cJSON* object, const char* key, bool& field) {
    const cJSON* item = cJSON_GetObjectItem(object, key);
    if (item) field = cJSON_IsTrue(item);
}

int parse_start_form(const cJSON* data, task_input_st* input) {
    const cJSON* list = cJSON_GetObjectItem(data, "list");
    if (!cJSON_IsArray(list)) {
        WL_LOG(LOG_LVL_ERROR, "invalid input data");
        return WL_TASK_BAD_COMMAND;
    }
    // One working record for all elements: a key an element leaves out keeps
    // the previous element's value.
    base_init_st record;
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, list) {
        if (!cJSON_IsObject(element)) continue;
        if (const char* text = string_member(element, "model_name")) record.model_name = text;
        if (const char* text = string_member(element, "app_name")) record.app_name = text;
        if (const char* text = string_member(element, "process_path")) record.process_path = text;
        const cJSON* study_times = cJSON_GetObjectItem(element, "study_times");
        if (cJSON_IsNumber(study_times)) record.study_times = study_times->valueint;
        read_flag(element, "alarm", record.alarm);
        const cJSON* ports = cJSON_GetObjectItem(element, "port");
        if (cJSON_IsArray(ports)) {
            record.port.clear();
            const cJSON* port = nullptr;
            cJSON_ArrayForEach(port, ports) {
                if (!cJSON_IsNumber(port)) continue;
                WL_LOG(LOG_LVL_INFO, "add port %d into set", port->valueint);
                record.port.insert((unsigned long long)(long long)port->valueint);
            }
        }
        input->models.push_back(record);
        WL_LOG(LOG_LVL_INFO, "model_name %s, study_times %d, process_path %s", record.model_name.c_str(),
               record.study_times, record.process_path.c_str());
    }
    return WL_TASK_OK;
}

int parse_name_form(const cJSON* data, task_input_st* input) {
    const cJSON* study_time = cJSON_GetObjectItem(data, "study_time");
    if (cJSON_IsNumber(study_time)) input->study_time = study_time->valueint;
    read_flag(data, "re_study", input->re_study);
    read_flag(data, "model_switch", input->model_switch);

    const cJSON* list = cJSON_GetObjectItem(data, "list");
    if (!cJSON_IsArray(list)) {
        WL_LOG(LOG_LVL_ERROR, "invalid input data");
        return WL_TASK_BAD_COMMAND;
    }
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, list) {
        if (!cJSON_IsString(element) || !element->valuestring) continue;
        input->model_names.insert(element->valuestring);
        WL_LOG(LOG_LVL_INFO, "add model name %s to set", element->valuestring);
    }
    WL_LOG(LOG_LVL_INFO, "study_time %d, re_study %s, model_switch %s", input->study_time,
           input->re_study ? "true" : "false", input->model_switch ? "true" : "false");
    return WL_TASK_OK;
}

}  // namespace

int whitelist_parse_task_input(cJSON* root, task_input_st* input) {
    const cJSON* opr_code = cJSON_GetObjectItem(root, "opr_code");
    if (!cJSON_IsNumber(opr_code)) {
        WL_LOG(LOG_LVL_ERROR, "invalid input data");
        return WL_TASK_REFUSED;
    }
    input->opr_code = opr_code->valueint;
    const cJSON* data = cJSON_GetObjectItem(root, "data");
    if (!cJSON_IsObject(data)) {
        WL_LOG(LOG_LVL_ERROR, "invalid input data");
        return WL_TASK_REFUSED;
    }
    return whitelist_is_start_opr(input->opr_code) ? parse_start_form(data, input) : parse_name_form(data, input);
}
