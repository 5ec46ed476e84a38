// The module-wide model lists, made at load by the engine area in the module;
// here for test executables that don't link that area.
#include "model_records.h"

std::vector<base_init_st>* g_model_array = new std::vector<base_init_st>();
std::vector<base_init_st>* g_rasp_model_array = new std::vector<base_init_st>();
std::map<unsigned long long, bool>* g_model_pid = new std::map<unsigned long long, bool>();
