#include "module_switch.h"

#include <cerrno>

#include "whitelist_upload.h"
#include "wl_log.h"

namespace {
// Only the work thread reads the switch, so the slot needs no lock.
const void* g_ms_conf_slot = nullptr;
}  // namespace

const void* module_switch_conf() {
    if (g_ms_conf_slot == nullptr) {
        g_ms_conf_slot = dll_get_addr_ex(nullptr, "g_ms_conf");
        if (g_ms_conf_slot == nullptr) {
            WL_LOG_AS("agent/include/plugins/module_switch", LOG_LVL_WARN,
                      "module_switch load g_ms_conf symbol failed, errno: %d\n", errno);
            dll_close_ex(nullptr);
        }
    }
    return g_ms_conf_slot;
}
