#include "fuzz_module.h"

#include <unistd.h>

#include <filesystem>

#include "agent_doubles.h"
#include "dirutils.h"
#include "model_library_double.h"
#include "model_records.h"
#include "orv_log.h"
#include "whitelist.h"

namespace fuzz_module {
namespace {
std::string g_root;
}

void setUp() {
    error_output_set_level(0);
    char pattern[] = "/tmp/wl_fuzz_module_XXXXXX";
    if (!::mkdtemp(pattern)) std::abort();
    g_root = pattern;
    std::filesystem::create_directories(g_root + "/lib");
    std::filesystem::create_directories(g_root + "/var/base");
    dirutils_set_install_dir((g_root + "/lib").c_str());
    reset();
}

void reset() {
    g_model_array->clear();
    g_rasp_model_array->clear();
    g_model_pid->clear();
    models_double::reset_engines();
    models_double::reset_agent();
    g_whitelist_context.base_engine_on = 1;
    g_whitelist_context.asset_ready = 1;
    g_counts = Counts();
    ::unlink(baseFile("base_model.cfg").c_str());
    ::unlink(baseFile("rasp_model.cfg").c_str());
}

std::string baseFile(const char* name) { return g_root + "/var/base/" + name; }

}  // namespace fuzz_module
