#include <cjson/cJSON.h>

#include <string>

#include "host_json.h"
#include "whitelist_api.h"
#include "whitelist_api_engine_calls.h"

#define WL_LOG_SOURCE "whitelist_api"
#include "libbase/wl_log.h"

namespace {

enum { ALARM_SOURCE_INNER = 0, ALARM_SOURCE_OUTER = 1 };

// Hands one group to its engine. 0 when there was nothing to hand over or the
// engine took it, 2 when it refused.
int hand_over(cJSON* alarms, bool outer) {
    if (cJSON_GetArraySize(alarms) == 0) return 0;
    JsonText text(cJSON_PrintUnformatted(alarms));
    if (!text) return 0;
    if (outer) {
        WL_LOG(LOG_LVL_DETAIL, "outer msg %s", text.get());
        if (whitelist_base_deal_alarm(text.get())) return 0;
        WL_LOG(LOG_LVL_ERROR, "dealAlarmEvent outer fail");
        return 2;
    }
    WL_LOG(LOG_LVL_DETAIL, "inner msg %s", text.get());
    if (whitelist_rasp_deal_alarm(text.get())) return 0;
    WL_LOG(LOG_LVL_ERROR, "dealAlarmEvent inner fail");
    return 2;
}

}  // namespace

extern "C" int whitelist_base_task_feedback(int opr, cJSON* root) {
    if (!root) {
        WL_LOG(LOG_LVL_ERROR, "input msg is NULL");
        return 2;
    }
    const cJSON* data = cJSON_GetObjectItem(root, "data");
    const cJSON* list = cJSON_IsObject(data) ? cJSON_GetObjectItem(data, "list") : nullptr;
    if (!cJSON_IsArray(list)) {
        WL_LOG(LOG_LVL_ERROR, "invalid input data");
        return -1;
    }
    JsonTree inner(cJSON_CreateArray());
    JsonTree outer(cJSON_CreateArray());
    if (!inner || !outer) {
        WL_LOG(LOG_LVL_ERROR, "create json array fail");
        return 2;
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
    if (hand_over(inner.get(), false) != 0) result = 2;
    return result;
}
