#include "mb_contract.h"

#include <cstring>

#include "dirutils.h"
#include "orv_dll.h"

namespace {
// Constant-initialised, so the identifiers hold their values before any
// constructor of the module runs.
constexpr _GUID make_interface_id(const char* name) { return _GUID{interface_id_hash(name), 0, 0, {0}}; }

constexpr _GUID kIEventId = make_interface_id("IEvent");
constexpr _GUID kIRtmFrameId = make_interface_id("IRtmFrame");
static_assert(kIEventId.Data1 == 0x04dccc54u, "IEvent identifier");
static_assert(kIRtmFrameId.Data1 == 0x04e23a55u, "IRtmFrame identifier");

constexpr char kBusLibraryPath[] = "@/../agent_plugins/libtulmb.1.so";
constexpr int kAdviseFlag = 1;
}  // namespace

const _GUID* MbFrame::IEvent::IEvent_ID = &kIEventId;
const _GUID* MbFrame::IRtmFrame::IRtmFrame_ID = &kIRtmFrameId;

_GUID CLSID_NULL = {0, 0, 0, {0}};

event_subscription b_RegisterEvent[3] = {
    {kEventActionCltType, 1},
    {kEventOriginCltJson, 1},
    {kEventCollectorOffline, 1},
};

const unsigned char g_registerPluginId[16] = {0x3b, 0xc4, 0x56, 0x48, 0xdd, 0xc4, 0x87, 0x41,
                                              0x21, 0x9b, 0x41, 0xab, 0xad, 0x56, 0x87, 0xa9};
const unsigned char g_whitelistInvokePluginId[16] = {0x9d, 0x67, 0xe2, 0x11, 0x5d, 0x66, 0x80, 0x77,
                                                     0xe2, 0x8e, 0xe9, 0xdd, 0x3e, 0xe6, 0xf9, 0x86};

mb_attach_result mb_attach(MbFrame::IPlugin* plugin, void*& dll, MbFrame::IRtmFrame*& frame, int& code,
                           std::string& path) {
    code = 0;
    if (dll != nullptr) {
        return MB_ATTACH_DONE;
    }
    char buffer[4097];
    std::memset(buffer, 0, sizeof(buffer));
    dirutils_path_transform(kBusLibraryPath, buffer, sizeof(buffer));
    path = buffer;
    if (!orv_path_is_exist_u(buffer)) {
        return MB_ATTACH_LITE;
    }
    code = orv_dll_open(buffer, &dll);
    if (code != 0) {
        dll = nullptr;
        return MB_ATTACH_OPEN_FAILED;
    }

    unsigned char plugin_id[16] = {0};
    plugin->GetUniqueID(&plugin_id);

    void* entry = nullptr;
    code = orv_dll_get_addr(dll, "DllGetClassObject", &entry);
    if (code != 0 || entry == nullptr) {
        if (code == 0) {
            code = MB_E_FAIL;
        }
        mb_detach(plugin_id, dll, frame);
        return MB_ATTACH_GET_ADDR_FAILED;
    }
    void* object = nullptr;
    code = reinterpret_cast<DllGetClassObject_fn>(entry)(CLSID_NULL, *MbFrame::IRtmFrame::IRtmFrame_ID, &object);
    if (code != 0 || object == nullptr) {
        if (code == 0) {
            code = MB_E_FAIL;
        }
        mb_detach(plugin_id, dll, frame);
        return MB_ATTACH_GET_OBJECT_FAILED;
    }
    frame = static_cast<MbFrame::IRtmFrame*>(object);
    code = frame->Advise(plugin, kAdviseFlag);
    if (code != 0) {
        mb_detach(plugin_id, dll, frame);
        return MB_ATTACH_ADVISE_FAILED;
    }
    return MB_ATTACH_DONE;
}

void mb_detach(const unsigned char* plugin_id, void*& dll, MbFrame::IRtmFrame*& frame) {
    if (frame != nullptr) {
        frame->Unadvise(plugin_id);
        frame->Release();
        frame = nullptr;
    }
    if (dll != nullptr) {
        orv_dll_close(dll);
        dll = nullptr;
    }
}

int mb_copy_plugin_id(const unsigned char (&source)[16], unsigned char (*id)[16]) {
    if (id == nullptr) {
        return MB_E_INVALIDARG;
    }
    std::memcpy(*id, source, sizeof(source));
    return 0;
}

int mb_plugin_version(unsigned int* version) {
    if (version == nullptr) {
        return MB_E_INVALIDARG;
    }
    *version = 1;
    return 0;
}
