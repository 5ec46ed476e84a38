#define WL_LOG_SOURCE "whitelist_impl"

#include <climits>
#include <cstdlib>
#include <cstring>

#include <cjson/cJSON.h>

#include "asset_collection.h"
#include "dirutils.h"
#include "host_json.h"
#include "whitelist.h"
#include "whitelist_impl.h"
#include "whitelist_upload.h"
#include "wl_log.h"

namespace {

// The four asset lists the report is made of.
struct openport_assets_st {
    JsonTree ports;
    JsonTree processes;
    JsonTree apps;
    JsonTree more_apps;
};

const char* string_value(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItem(object, key);
    if (!cJSON_IsString(item) || !item->valuestring || !item->valuestring[0]) return nullptr;
    return item->valuestring;
}

bool port_is_filtered(int port) {
    const wl_list_head* head = &g_whitelist_context.port_filter_list;
    for (const wl_list_head* link = head->next; link && link != head; link = link->next) {
        // The link is the node's first member.
        const port_filter_node* node = reinterpret_cast<const port_filter_node*>(link);
        if (node->port == port) return true;
    }
    return false;
}

// The agent's own directory and its sibling vr_agent's, resolved anew for
// each entry. A failed realpath keeps whatever it left in the buffer: the C
// library leaves the part it resolved, which still names the sibling.
bool is_own_process(const char* process_path) {
    char install_dir[2048] = {0};
    char sibling[4096] = {0};
    char sibling_real[4096];
    dirutils_path_transform("@", install_dir, sizeof(install_dir));
    dirutils_path_transform("@/../vr_agent", sibling, sizeof(sibling));
    memset(sibling_real, 0, sizeof(sibling_real));
    const char* resolved = realpath(sibling, sibling_real);
    (void)resolved;
    return strstr(process_path, install_dir) || strstr(process_path, sibling_real);
}

// The entry's process id, or 0 after the message when it is unusable.
int entry_pid(const cJSON* entry) {
    const char* text = string_value(entry, "process_id");
    if (!text) {
        WL_LOG(LOG_LVL_WARN, "invalid json data");
        return 0;
    }
    int pid = (int)str2number(text);
    if (pid <= 0) {
        WL_LOG(LOG_LVL_WARN, "invalid pid %d. str: %s", pid, text);
        return 0;
    }
    return pid;
}

void add_process_type(cJSON* entry, const cJSON* processes) {
    int pid = entry_pid(entry);
    if (pid == 0) return;
    const cJSON* list = cJSON_GetObjectItem(processes, "list");
    if (!cJSON_IsArray(list)) {
        WL_LOG(LOG_LVL_ERROR, "json msg invalid.");
        return;
    }
    const cJSON* process = nullptr;
    cJSON_ArrayForEach(process, list) {
        const char* text = cJSON_IsObject(process) ? string_value(process, "process_id") : nullptr;
        if (!text) {
            WL_LOG(LOG_LVL_WARN, "invalid json data");
            continue;
        }
        int process_pid = (int)str2number(text);
        if (process_pid <= 0) {
            WL_LOG(LOG_LVL_DETAIL, "invalid pid %d. str: %s", process_pid, text);
            continue;
        }
        if (process_pid != pid) continue;
        const cJSON* type = cJSON_GetObjectItem(process, "type");
        if (cJSON_IsString(type) && type->valuestring && type->valuestring[0]) {
            cJSON_AddItemToObject(entry, "type", cJSON_Duplicate(type, 1));
            return;
        }
        WL_LOG(LOG_LVL_WARN, "invalid json data");
    }
}

void add_app_name(cJSON* entry, const openport_assets_st& assets) {
    int pid = entry_pid(entry);
    if (pid == 0) return;
    if (whitelist_find_app_name(assets.apps.get(), entry, pid) != 0 &&
        whitelist_find_app_name(assets.more_apps.get(), entry, pid) != 0)
        WL_LOG(LOG_LVL_DETAIL, "get app name fail");
}

// A copy of one kind-5 entry for the report, or null when it is left out.
cJSON* report_entry(const cJSON* item, const openport_assets_st& assets) {
    if (!cJSON_IsObject(item)) {
        WL_LOG(LOG_LVL_WARN, "invalid json data");
        return nullptr;
    }
    const cJSON* open = cJSON_GetObjectItem(item, "open");
    if (!cJSON_IsNumber(open)) {
        WL_LOG(LOG_LVL_ERROR, "invalid item");
        return nullptr;
    }
    if (open->valueint != 0) return nullptr;
    if (const char* port = string_value(item, "port")) {
        int number = (int)str2number(port);
        if (port_is_filtered(number)) {
            WL_LOG(LOG_LVL_DETAIL, "match filter port list %d", number);
            return nullptr;
        }
    }
    const char* process_path = string_value(item, "process_path");
    if (!process_path) return nullptr;
    WL_LOG(LOG_LVL_DETAIL, "process_path path is %s", process_path);
    if (is_own_process(process_path)) {
        WL_LOG(LOG_LVL_INFO, "filter process %s", process_path);
        return nullptr;
    }
    cJSON* entry = cJSON_Duplicate(item, 1);
    if (!entry) return nullptr;
    add_process_type(entry, assets.processes.get());
    add_app_name(entry, assets);
    return entry;
}

}  // namespace

extern "C" {

unsigned long long str2number(const char* text) { return text ? strtoull(text, nullptr, 0) : 0; }

cJSON* whitelist_get_asset_info(int kind) {
    cJSON* tree = nullptr;
    if (get_asset_result_v2(kind, 86400, &tree, 0) != 0 || !tree) {
        WL_LOG(LOG_LVL_INFO, "get open port process fail");
        return nullptr;
    }
    return tree;
}

int whitelist_find_app_name(cJSON* tree, cJSON* entry, int pid) {
    const cJSON* list = cJSON_GetObjectItem(tree, "list");
    if (!cJSON_IsArray(list)) {
        WL_LOG(LOG_LVL_ERROR, "json msg invalid.");
        return -1;
    }
    const cJSON* app = nullptr;
    cJSON_ArrayForEach(app, list) {
        if (!cJSON_IsObject(app)) continue;
        const cJSON* pids = cJSON_GetObjectItem(app, "pid");
        if (!cJSON_IsArray(pids)) continue;
        const cJSON* number = nullptr;
        cJSON_ArrayForEach(number, pids) {
            if (!cJSON_IsNumber(number) || number->valueint != pid) continue;
            // Found: an unusable name still ends the search.
            const cJSON* name = cJSON_GetObjectItem(app, "name");
            if (cJSON_IsString(name) && name->valuestring && name->valuestring[0])
                cJSON_AddItemToObject(entry, "app_name", cJSON_Duplicate(name, 1));
            return 0;
        }
    }
    return -1;
}

cJSON* get_openport_process_json(void) {
    openport_assets_st assets;
    assets.ports.reset(whitelist_get_asset_info(ASSET_KIND_OPEN_PORT));
    assets.processes.reset(whitelist_get_asset_info(ASSET_KIND_PROCESS));
    assets.apps.reset(whitelist_get_asset_info(ASSET_KIND_APP));
    assets.more_apps.reset(whitelist_get_asset_info(ASSET_KIND_APP_EXTRA));
    if (!assets.ports || !assets.processes || !assets.apps || !assets.more_apps) {
        WL_LOG(LOG_LVL_ERROR, "get asset info fail");
        return nullptr;
    }
    const cJSON* list = cJSON_GetObjectItem(assets.ports.get(), "list");
    if (!cJSON_IsArray(list)) {
        WL_LOG(LOG_LVL_ERROR, "json msg invalid.");
        return nullptr;
    }
    cJSON* report = cJSON_CreateArray();
    if (!report) {
        WL_LOG(LOG_LVL_ERROR, "create json array fail");
        return nullptr;
    }
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, list) {
        if (cJSON* entry = report_entry(item, assets)) cJSON_AddItemToArray(report, entry);
    }
    return report;
}

void upload_openport_process(void) {
    JsonTree report(get_openport_process_json());
    if (!report) {
        WL_LOG(LOG_LVL_WARN, "get_openport_process_json fail");
        return;
    }
    WL_LOG(LOG_LVL_DETAIL, "get_openport_process_json end");
    JsonText text(cJSON_PrintUnformatted(report.get()));
    if (text) whitelist_upload_data(text.get(), WL_REPORT_OPEN_PROC);
}
}
