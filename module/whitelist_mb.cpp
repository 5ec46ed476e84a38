#define WL_LOG_SOURCE "whitelist_mb"

#include "whitelist_mb.h"

#include <cerrno>
#include <cstring>

#include "dirutils.h"
#include "orv_dll.h"
#include "register.h"
#include "whitelist_invoke.h"
#include "wl_log.h"

namespace {
constexpr char kRaspLibraryPath[] = "@/../agent_plugins/liborv_rasp.50.so";

typedef int (*rasp_register_fn)(wl_rasp_callback callback, void* user);

// Touched by the work thread only. The library stays loaded once a callback
// was registered with it: there is no way to take the callback back.
void* g_raspLibrary = nullptr;
rasp_register_fn g_raspRegister = nullptr;
}  // namespace

extern "C" int whitelist_msgbus_init(void) { return wlist_invoke->Initialize() ? 1 : 0; }

extern "C" void whitelist_msgbus_uninit(void) { wlist_invoke->UnInitialize(); }

extern "C" int whitelist_init_rasp_handler(wl_rasp_callback callback, void* user) {
    if (g_raspRegister != nullptr) {
        return g_raspRegister(callback, user);
    }
    if (g_raspLibrary == nullptr) {
        char path[4097];
        std::memset(path, 0, sizeof(path));
        dirutils_path_transform(kRaspLibraryPath, path, sizeof(path));
        if (orv_dll_open(path, &g_raspLibrary) != 0) {
            g_raspLibrary = nullptr;
            WL_ORV_ERROR("load liborv_rasp failed:%s", strerror(errno));
            return -1;
        }
    }
    void* slot = nullptr;
    if (orv_dll_get_addr(g_raspLibrary, "orv_rasp_reg_tele_callback", &slot) != 0) {
        WL_ORV_ERROR("load tulmb symbol: orv_rasp_reg_tele_callback failed:%s", strerror(errno));
        orv_dll_close(g_raspLibrary);
        g_raspLibrary = nullptr;
        return -1;
    }
    if (slot == nullptr) {
        WL_ORV_ERROR("get handle fail");
        return -1;
    }
    g_raspRegister = reinterpret_cast<rasp_register_fn>(slot);
    return g_raspRegister(callback, user);
}

extern "C" void transmit_rasp_data(const char* text) {
    if (text == nullptr) {
        WL_ORV_ERROR("no message");
        return;
    }
    WL_ORV_DEBUG("send msg:%s", text);
    // With the NUL, so that the bus's copy is a whole text.
    wlist_invoke->Publish_t(WL_PUBLISH_ORIGIN_JSON, 0, const_cast<char*>(text),
                            static_cast<unsigned int>(std::strlen(text) + 1));
}

extern "C" void transmit_action_data(const action_collector_msg* msg) {
    if (msg == nullptr) {
        WL_ORV_ERROR("no message");
        return;
    }
    wlist_invoke->Publish_t(WL_PUBLISH_ACTION, msg->type, const_cast<unsigned char*>(msg->payload), msg->size);
}

extern "C" int whitelist_counters_json(char* out, int size) {
    std::string text = Register::GetInstance()->countersJson();
    int needed = static_cast<int>(text.size()) + 1;
    if (out == nullptr || size < needed) return needed;
    memcpy(out, text.c_str(), static_cast<size_t>(needed));
    return needed - 1;
}
