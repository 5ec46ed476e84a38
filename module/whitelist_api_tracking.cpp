#define WL_LOG_SOURCE "whitelist_api"

#include <libgen.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <cjson/cJSON.h>

#include "dir_walk.h"
#include "host_json.h"
#include "vrccl_action.h"
#include "whitelist_api.h"
#include "whitelist_api_engine_calls.h"
#include "whitelist_api_state.h"
#include "whitelist_impl.h"
#include "wl_log.h"
#include "wl_proc.h"

bool g_base_open_process_called = false;
bool g_rasp_open_process_called = false;

namespace {

constexpr int kPathSize = 1024;

struct file_closer {
    void operator()(FILE* file) const { fclose(file); }
};

// Ids are held sign-extended in the 64-bit sets; only the low 32 bits count.
unsigned long long widen(int id) { return (unsigned long long)(long long)id; }

// Marks the ids a pass found, subscribing those the collector doesn't know.
void mark_pids(const path_pid_map& map, bool children) {
    for (const auto& entry : map) {
        for (unsigned long long pid : entry.second) {
            auto found = g_model_pid->find(pid);
            if (found == g_model_pid->end()) {
                if (children)
                    WL_LOG(LOG_LVL_DETAIL, "update pid %llu to vr_agent", pid);
                else
                    WL_LOG(LOG_LVL_DETAIL, "update pid %d to vr_agent", (int)pid);
                (*g_model_pid)[pid] = true;
                vrccl_action_subscribe(VRCCL_ACTION_ADD_PID, (int)pid, -1);
            } else {
                // The text says the opposite of what the mark does: it keeps the id.
                WL_LOG(LOG_LVL_DETAIL, "set pid %d to delete", (int)pid);
                found->second = true;
            }
        }
    }
}

// Withdraws what no model marked in this pass and clears the marks.
void sweep_pids() {
    for (auto it = g_model_pid->begin(); it != g_model_pid->end();) {
        if (!it->second) {
            vrccl_action_subscribe(VRCCL_ACTION_DEL_PID, (int)it->first, -1);
            it = g_model_pid->erase(it);
        } else {
            it->second = false;
            ++it;
        }
    }
}

}  // namespace

extern "C" int get_process_path_by_pid(int pid, char* buffer, int size) {
    if (!buffer) {
        WL_LOG(LOG_LVL_WARN, "param illegal");
        return -1;
    }
    char link[kPathSize];
    snprintf(link, sizeof(link), "%s/proc/%d/exe", g_wl_proc_root, pid);
    ssize_t length = size > 1 ? readlink(link, buffer, (size_t)size - 1) : -1;
    if (length > 0) {
        buffer[length] = '\0';
        WL_LOG(LOG_LVL_DETAIL, "%s -> %s\n", link, buffer);
        return 0;
    }
    WL_LOG(LOG_LVL_ERROR, "readlink %s fail", link);
    return -1;
}

extern "C" int get_process_parentid(int pid) {
    char path[kPathSize];
    snprintf(path, sizeof(path), "%s/proc/%d/status", g_wl_proc_root, pid);
    std::unique_ptr<FILE, file_closer> file(fopen(path, "r"));
    if (!file) {
        WL_LOG(LOG_LVL_ERROR, "open file %s fail", path);
        return 0;
    }
    char line[1024];
    while (fgets(line, sizeof(line), file.get())) {
        if (strncmp(line, "PPid:", 5) == 0) return (int)strtol(line + 5, nullptr, 10);
    }
    return 0;
}

process_tree whitelist_scan_process_tree() {
    process_tree tree;
    char root[kPathSize];
    snprintf(root, sizeof(root), "%s/proc/", g_wl_proc_root);
    DirWalk walk = open_dir_walk(root);
    if (!walk) {
        WL_LOG(LOG_LVL_ERROR, "create walk dir handle failed.");
        return tree;
    }
    int is_dir = 0;
    while (const char* entry = dirwalk_read(walk.get(), &is_dir)) {
        if (!is_dir) continue;
        char name[kPathSize] = {0};
        strncpy(name, entry, sizeof(name) - 1);
        int pid = (int)str2number(basename(name));
        if (pid == 0) continue;
        tree[widen(get_process_parentid(pid))].insert(widen(pid));
    }
    WL_LOG(LOG_LVL_DETAIL, "scan end");
    return tree;
}

void whitelist_get_listen_pids(const base_init_st& record, pid_set& pids) {
    JsonTree assets(whitelist_get_asset_info(5));
    if (!assets) {
        WL_LOG(LOG_LVL_ERROR, "port listening get fail");
        return;
    }
    for (unsigned long long model_port : record.port) {
        const cJSON* list = cJSON_GetObjectItem(assets.get(), "list");
        if (!cJSON_IsArray(list)) {
            WL_LOG(LOG_LVL_ERROR, "invalid data");
            continue;
        }
        pid_set port_pids;
        const cJSON* element = nullptr;
        cJSON_ArrayForEach(element, list) {
            if (!cJSON_IsObject(element)) continue;
            const cJSON* port = cJSON_GetObjectItem(element, "port");
            if (!cJSON_IsString(port) || !port->valuestring) continue;
            if ((unsigned int)str2number(port->valuestring) != (unsigned int)model_port) continue;
            const cJSON* process_id = cJSON_GetObjectItem(element, "process_id");
            if (!cJSON_IsString(process_id) || !process_id->valuestring) continue;
            int pid = (int)str2number(process_id->valuestring);
            if (pid <= 0) continue;
            WL_LOG(LOG_LVL_DETAIL, "insert pid %d to set", pid);
            port_pids.insert(widen(pid));
        }
        pids.insert(port_pids.begin(), port_pids.end());
    }
}

pid_set whitelist_collect_child_process(_USR_INPUT& input, const pid_set& roots, process_tree tree, int pass) {
    pid_set children;
    // One buffer for the whole call: a child whose link can't be read is filed
    // under the path read before it.
    char path[kPathSize] = {0};
    path_pid_map& target = pass == 0 ? input.childProcessMap : input.childProcessMapDup;
    for (unsigned long long root : roots) {
        auto found = tree.find(root);
        if (found == tree.end()) continue;
        for (unsigned long long child : found->second) {
            get_process_path_by_pid((int)child, path, sizeof(path));
            target[path].insert(child);
            WL_LOG(LOG_LVL_DETAIL, "insert pid %d path %s", (int)child, path);
            children.insert(child);
        }
    }
    return children;
}

_USR_INPUT whitelist_build_model_input(const base_init_st& record, const process_tree& tree) {
    _USR_INPUT input;
    input.modelName = record.model_name;
    input.learnTime = (unsigned short)record.study_times;
    input.oprType = USR_OPR_INIT;
    const std::string& pfilePath = record.process_path;

    pid_set listening;
    whitelist_get_listen_pids(record, listening);
    input.processMap[pfilePath] = listening;
    if (listening.empty()) {
        WL_LOG(LOG_LVL_WARN, "model %s not running", record.model_name.c_str());
        input.switchValue = USR_SWITCH_NOT_RUNNING;
        input.oprType = USR_OPR_SWITCH;
        return input;
    }
    // Both passes start from the listening processes, so the second map is a
    // copy of the first; the library is given both.
    whitelist_collect_child_process(input, listening, tree, 0);
    whitelist_collect_child_process(input, listening, tree, 1);
    WL_LOG(LOG_LVL_INFO, "model_name %s, learnTime %d. pfilePath %s", input.modelName.c_str(), (int)input.learnTime,
           pfilePath.c_str());
    return input;
}

namespace {

// One pass over a model list. Only the base pass tells the collector which
// ids to watch; the texts name the engine.
template <class Library>
void update_open_process(const std::vector<base_init_st>& models, Library* (*library_of)(), bool base) {
    process_tree tree = whitelist_scan_process_tree();
    for (const base_init_st& record : models) {
        _USR_INPUT input;
        input = whitelist_build_model_input(record, tree);
        Library* library = library_of();
        if (input.oprType == USR_OPR_SWITCH) {
            if (library && library->interactModel(&input) == 0) continue;
            if (base)
                WL_LOG(LOG_LVL_WARN, "model %s interact fail.", record.model_name.c_str());
            else
                WL_LOG(LOG_LVL_WARN, "rasp model %s interact fail.", record.model_name.c_str());
            continue;
        }
        if (base)
            WL_LOG(LOG_LVL_INFO, "update model %s info", record.model_name.c_str());
        else
            WL_LOG(LOG_LVL_INFO, "update rasp model %s info", record.model_name.c_str());
        if (!library || !library->initModel(&input)) {
            if (base)
                WL_LOG(LOG_LVL_WARN, "update model %s info fail", record.model_name.c_str());
            else
                WL_LOG(LOG_LVL_WARN, "update rasp model %s info fail", record.model_name.c_str());
        }
        if (base) {
            mark_pids(input.processMap, false);
            mark_pids(input.childProcessMap, true);
        }
    }
    if (base) sweep_pids();
}

}  // namespace

// The main loop's call when the assets are ready is each pass's first one;
// the passes begin with the timer.
extern "C" int whitelist_base_update_open_process(void) {
    if (!g_base_open_process_called) {
        g_base_open_process_called = true;
        return 0;
    }
    if (g_model_array && g_model_pid) update_open_process(*g_model_array, whitelist_base_library, true);
    return 0;
}

extern "C" void whitelist_rasp_update_open_process(void) {
    if (!g_rasp_open_process_called) {
        g_rasp_open_process_called = true;
        return;
    }
    if (g_rasp_model_array) update_open_process(*g_rasp_model_array, whitelist_rasp_library, false);
}
