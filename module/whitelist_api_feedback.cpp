#define WL_LOG_SOURCE "whitelist_api"

#include <string>

#include <cjson/cJSON.h>

#include "host_json.h"
#include "whitelist_api.h"
#include "whitelist_api_engine_calls.h"
#include "whitelist_impl.h"
#include "wl_log.h"

namespace {

enum { ALARM_SOURCE_INNER = 0, ALARM_SOURCE_OUTER = 1 };

// Hands one group to its engine. WL_TASK_OK when there was nothing to hand
// over or the engine took it; an engine's refusal is answered
// WL_TASK_BAD_COMMAND here, not WL_TASK_REFUSED, as this command always has.
int hand_over(cJSON* alarms, bool outer) {
    if (cJSON_GetArraySize(alarms) == 0) return WL_TASK_OK;
    JsonText text(cJSON_PrintUnformatted(alarms));
    if (!text) return WL_TASK_OK;
    if (outer) {
        WL_LOG(LOG_LVL_DETAIL, "outer msg %s", text.get());
        if (whitelist_base_deal_alarm(text.get())) return WL_TASK_OK;
        WL_LOG(LOG_LVL_ERROR, "dealAlarmEvent outer fail");
        return WL_TASK_BAD_COMMAND;
    }
    WL_LOG(LOG_LVL_DETAIL, "inner msg %s", text.get());
    if (whitelist_rasp_deal_alarm(text.get())) return WL_TASK_OK;
    WL_LOG(LOG_LVL_ERROR, "dealAlarmEvent inner fail");
    return WL_TASK_BAD_COMMAND;
}

}  // namespace

extern "C" int whitelist_base_task_feedback(int opr, cJSON* root) {
    if (!root) {
        WL_LOG(LOG_LVL_ERROR, "input msg is NULL");
        return WL_TASK_BAD_COMMAND;
    }
    const cJSON* data = cJSON_GetObjectItem(root, "data");
    const cJSON* list = cJSON_IsObject(data) ? cJSON_GetObjectItem(data, "list") : nullptr;
    if (!cJSON_IsArray(list)) {
        WL_LOG(LOG_LVL_ERROR, "invalid input data");
        return WL_TASK_REFUSED;
    }
    JsonTree inner(cJSON_CreateArray());
    JsonTree outer(cJSON_CreateArray());
    if (!inner || !outer) {
        WL_LOG(LOG_LVL_ERROR, "create json array fail");
        return WL_TASK_BAD_COMMAND;
    }

    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, list) {
        const cJSON* source = cJSON_IsObject(element) ? cJSON_GetObjectItem(element, "alarm_source") : nullptr;
        if (!cJSON_IsNumber(source)) {
            WL_LOG(LOG_LVL_ERROR, "invalid input data");
            continue;
        }
        // Copies, so that the command's tree stays as it was given.
        if (source->valueint != ALARM_SOURCE_OUTER) cJSON_AddItemToArray(inner.get(), cJSON_Duplicate(element, 1));
        if (source->valueint != ALARM_SOURCE_INNER) cJSON_AddItemToArray(outer.get(), cJSON_Duplicate(element, 1));
    }

    int result = hand_over(outer.get(), true);
    if (hand_over(inner.get(), false) != WL_TASK_OK) result = WL_TASK_BAD_COMMAND;
    return result;
}
