// The module-wide model lists, made at load by the engine area in the module;
// here for test executables that don't link that area.
#include "model_records.h"

namespace {
std::vector<base_init_st> g_base_models;
std::vector<base_init_st> g_rasp_models;
std::map<unsigned long long, bool> g_pids;
}  // namespace

std::vector<base_init_st>* g_model_array = &g_base_models;
std::vector<base_init_st>* g_rasp_model_array = &g_rasp_models;
std::map<unsigned long long, bool>* g_model_pid = &g_pids;
