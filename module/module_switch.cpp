#include "module_switch.h"

#include <cerrno>

#include "agent_symbol.h"
#include "wl_log.h"

namespace {
// Only the work thread reads the switch, so the slot needs no lock.
const void* g_ms_conf_slot = nullptr;
}  // namespace

const void* module_switch_conf() {
    return agent_symbol(g_ms_conf_slot, "g_ms_conf", [] {
        WL_LOG_AS("agent/include/plugins/module_switch", LOG_LVL_WARN,
                  "module_switch load g_ms_conf symbol failed, errno: %d\n", errno);
        dll_close_ex(nullptr);
    });
}
