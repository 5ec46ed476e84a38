#define WL_LOG_SOURCE "whitelist_api"

#include <map>
#include <vector>

#include "base.h"
#include "model_records.h"
#include "rasp.h"
#include "register.h"
#include "vrccl_action.h"
#include "whitelist_api.h"

BaseEngine* base_engine = nullptr;
RaspEngine* rasp_engine = nullptr;
std::vector<base_init_st>* g_model_array = nullptr;
std::vector<base_init_st>* g_rasp_model_array = nullptr;
std::map<unsigned long long, bool>* g_model_pid = nullptr;

namespace {
// Runs while the module loads, before its entry point: the singletons first,
// then the three lists. The lists are function-local statics, so the exit
// mechanism destroys them, in reverse order, at unload.
struct ModuleLoad {
    ModuleLoad() {
        white_register = Register::GetInstance();
        base_engine = BaseEngine::GetInstance();
        rasp_engine = RaspEngine::GetInstance();
        static std::vector<base_init_st> modelArray;
        g_model_array = &modelArray;
        static std::vector<base_init_st> raspModelArray;
        g_rasp_model_array = &raspModelArray;
        static std::map<unsigned long long, bool> modelPid;
        g_model_pid = &modelPid;
    }
} g_moduleLoad;
}  // namespace

extern "C" {

void reload_vrccl_filter(void) {
    for (const auto& entry : *g_model_pid) {
        vrccl_action_subscribe(VRCCL_ACTION_ADD_PID, static_cast<int>(entry.first), -1);
    }
}

int whitelist_base_engine_init(void) {
    if (!Register::GetInstance()->registerInit()) {
        return 0;
    }
    return BaseEngine::GetInstance()->Initialize() ? 1 : 0;
}

void whitelist_base_engine_uninit(void) {
    Register::GetInstance()->registerUninit();
    BaseEngine::GetInstance()->Uninitialize();
}

int whitelist_rasp_engine_init(void) { return RaspEngine::GetInstance()->Initialize() ? 1 : 0; }

void whitelist_rasp_engine_uninit(void) { RaspEngine::GetInstance()->Uninitialize(); }

}  // extern "C"
