#define WL_LOG_SOURCE "whitelist_api"

#include <cstring>

#include <cjson/cJSON.h>

#include "vrccl_action.h"
#include "whitelist_api.h"
#include "whitelist_api_catalogue.h"
#include "whitelist_api_engine_calls.h"
#include "whitelist_impl.h"
#include "wl_log.h"

namespace {

// What differs between the base and the runtime-application commands.
struct engine_side_st {
    bool base;
    const model_catalogue_st& catalogue;
};

const engine_side_st kBaseSide = {true, g_base_catalogue};
const engine_side_st kRaspSide = {false, g_rasp_catalogue};

bool init_model(const engine_side_st& side, _USR_INPUT* input) {
    if (side.base) {
        BaseInterface* library = whitelist_base_library();
        return library && library->initModel(input);
    }
    RaspInterface* library = whitelist_rasp_library();
    return library && library->initModel(input);
}

// The library's code; without a library the model counts as refused.
int interact_model(const engine_side_st& side, _USR_INPUT* input) {
    if (side.base) {
        BaseInterface* library = whitelist_base_library();
        return library ? library->interactModel(input) : WL_TASK_REFUSED;
    }
    RaspInterface* library = whitelist_rasp_library();
    return library ? library->interactModel(input) : WL_TASK_REFUSED;
}

void parse_input(const engine_side_st& side, _USR_INPUT* input) {
    if (side.base)
        whitelist_base_parse_input(input);
    else
        whitelist_rasp_parse_input(input);
}

// Parses a command for the task functions; WL_TASK_OK, or WL_TASK_BAD_COMMAND
// with the message logged.
int parse_command(cJSON* root, task_input_st& input) {
    if (!root) {
        WL_LOG(LOG_LVL_ERROR, "input msg is NULL");
        return WL_TASK_BAD_COMMAND;
    }
    if (whitelist_parse_task_input(root, &input) != WL_TASK_OK) {
        WL_LOG(LOG_LVL_ERROR, "invalid input data");
        return WL_TASK_BAD_COMMAND;
    }
    return WL_TASK_OK;
}

// Tells the collector the ids a started model has that it doesn't know yet.
void subscribe_new_pids(const path_pid_map& map) {
    if (!g_model_pid) return;
    for (const auto& entry : map) {
        for (unsigned long long pid : entry.second) {
            if (g_model_pid->count(pid)) continue;
            WL_LOG(LOG_LVL_DETAIL, "add pid %d to vr_agent", (int)pid);
            (*g_model_pid)[pid] = false;
            vrccl_action_subscribe(VRCCL_ACTION_ADD_PID, (int)pid, -1);
        }
    }
}

int task_start(const engine_side_st& side, cJSON* root) {
    task_input_st input;
    int result = parse_command(root, input);
    if (result != WL_TASK_OK) return result;

    process_tree tree = whitelist_scan_process_tree();
    for (const base_init_st& record : input.models) {
        _USR_INPUT usr_input;
        usr_input = whitelist_build_model_input(record, tree);
        WL_LOG(LOG_LVL_INFO, "start init model. model_name %s, study_time %d", usr_input.modelName.c_str(),
               (int)usr_input.learnTime);
        if (init_model(side, &usr_input)) {
            if (side.base) {
                whitelist_append_catalogue(side.catalogue, record);
                subscribe_new_pids(usr_input.processMap);
                subscribe_new_pids(usr_input.childProcessMap);
            } else {
                WL_LOG(LOG_LVL_INFO, "rasp init success");
                whitelist_rasp_save_model(record);
            }
        } else {
            // The code printed is the command's result so far.
            WL_LOG(LOG_LVL_WARN, "model %s init fail, code %d", record.model_name.c_str(), result);
            result = WL_TASK_REFUSED;
        }
        parse_input(side, &usr_input);
    }
    return result;
}

int task_interact(const engine_side_st& side, int opr, cJSON* root) {
    task_input_st input;
    int result = parse_command(root, input);
    if (result != WL_TASK_OK) return result;

    for (const std::string& name : input.model_names) {
        _USR_INPUT usr_input;
        usr_input = whitelist_build_interact_input(opr, name, input);
        result = interact_model(side, &usr_input);
        if (result != WL_INTERACT_OK) {
            WL_LOG(LOG_LVL_WARN, "model %s interact fail. code %d", name.c_str(), result);
            result = WL_TASK_REFUSED;
        }
        parse_input(side, &usr_input);
    }
    return result;
}

// Removes every entry whose name begins with the requested one; the count
// removed.
int remove_by_prefix(const engine_side_st& side, const std::string& name) {
    std::vector<base_init_st>* list = *side.catalogue.list;
    if (!list) return 0;
    int removed = 0;
    for (auto it = list->begin(); it != list->end();) {
        if (strncmp(it->model_name.c_str(), name.c_str(), name.size()) == 0) {
            if (side.base)
                WL_LOG(LOG_LVL_INFO, "delete model %s", it->model_name.c_str());
            else
                WL_LOG(LOG_LVL_INFO, "delete rasp model %s", it->model_name.c_str());
            it = list->erase(it);
            ++removed;
        } else {
            ++it;
        }
    }
    return removed;
}

int task_delete(const engine_side_st& side, int opr, cJSON* root) {
    task_input_st input;
    int result = parse_command(root, input);
    if (result != WL_TASK_OK) return result;

    // Counts over the whole command: once something went, every later name
    // rewrites the file.
    int removed = 0;
    for (const std::string& name : input.model_names) {
        _USR_INPUT usr_input;
        usr_input = whitelist_build_interact_input(opr, name, input);
        // WL_INTERACT_DELETE_ANYWAY stays the result of the command.
        result = interact_model(side, &usr_input);
        if (result != WL_INTERACT_OK && result != WL_INTERACT_DELETE_ANYWAY) {
            WL_LOG(LOG_LVL_WARN, "model %s interact fail. code %d", name.c_str(), result);
            result = WL_TASK_REFUSED;
        } else {
            removed += remove_by_prefix(side, name);
            if (removed > 0) whitelist_rewrite_catalogue(side.catalogue);
        }
        parse_input(side, &usr_input);
    }
    return result;
}

}  // namespace

_USR_INPUT whitelist_build_interact_input(int opr, const std::string& name, const task_input_st& input) {
    _USR_INPUT usr_input;
    switch (opr) {
        case 2:
        case 102: usr_input.oprType = USR_OPR_QUERY; break;
        case 3:
        case 103:
            usr_input.oprType = input.re_study ? USR_OPR_RELEARN : USR_OPR_STUDY_TIME;
            usr_input.learnTime = (unsigned short)input.study_time;
            break;
        case 4:
        case 104:
            usr_input.oprType = USR_OPR_SWITCH;
            usr_input.switchValue = input.model_switch ? USR_SWITCH_ON : USR_SWITCH_OFF;
            break;
        case 6:
        case 106: usr_input.oprType = USR_OPR_DELETE; break;
        default: WL_LOG(LOG_LVL_WARN, "invalid data"); return usr_input;
    }
    usr_input.modelName = name;
    return usr_input;
}

void whitelist_rasp_save_model(const base_init_st& record) { whitelist_append_catalogue(g_rasp_catalogue, record); }

extern "C" {

int whitelist_base_task_start(cJSON* root) { return task_start(kBaseSide, root); }
int whitelist_rasp_task_start(cJSON* root) { return task_start(kRaspSide, root); }
int whitelist_base_task_interact(int opr, cJSON* root) { return task_interact(kBaseSide, opr, root); }
int whitelist_rasp_task_interact(int opr, cJSON* root) { return task_interact(kRaspSide, opr, root); }
int whitelist_base_task_delete(int opr, cJSON* root) { return task_delete(kBaseSide, opr, root); }
int whitelist_rasp_task_delete(int opr, cJSON* root) { return task_delete(kRaspSide, opr, root); }
}
