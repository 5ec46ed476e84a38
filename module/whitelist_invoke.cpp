#define WL_LOG_SOURCE "whitelist_invoke"

#include "whitelist_invoke.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <string>

#include "event_info.h"
#include "mb_contract.h"
#include "whitelist_event.h"
#include "wl_log.h"

WhitelistInvoke* wlist_invoke = WhitelistInvoke::GetInstance();

namespace {
// A copied payload. Collector records are padded with zeros up to the largest
// native record, so the conversions' fixed offsets stay inside the buffer
// however short the sender's record was; one more zero ends a text.
char* copyPayload(const void* data, unsigned int size, std::size_t minimum) {
    const std::size_t length = size < minimum ? minimum : size;
    if (length >= SIZE_MAX - 1) {
        return nullptr;
    }
    char* buffer = new (std::nothrow) char[length + 1];
    if (buffer == nullptr) {
        return nullptr;
    }
    std::memcpy(buffer, data, size);
    std::memset(buffer + size, 0, length + 1 - size);
    return buffer;
}
}  // namespace

WhitelistInvoke::WhitelistInvoke() : m_dispatch(nullptr), m_lock(nullptr), m_dll(nullptr), m_frame(nullptr) {
    orv_mutex_init(&m_lock);
}

WhitelistInvoke::~WhitelistInvoke() { orv_mutex_destroy(&m_lock); }

WhitelistInvoke* WhitelistInvoke::GetInstance() {
    static WhitelistInvoke This;
    return &This;
}

bool WhitelistInvoke::Initialize() {
    int code = 0;
    std::string path;
    switch (mb_attach(this, m_dll, m_frame, code, path)) {
        case MB_ATTACH_DONE: return true;
        case MB_ATTACH_LITE: WL_ORV_INFO("lite no tulmb path: %s, not load", path.c_str()); return true;
        case MB_ATTACH_OPEN_FAILED: WL_ORV_ERROR("mb dll open failed!0x%08x", code); return false;
        case MB_ATTACH_GET_ADDR_FAILED: WL_ORV_ERROR("mb dll_get_addr failed!0x%08x", code); return false;
        case MB_ATTACH_GET_OBJECT_FAILED: WL_ORV_ERROR("mb get object failed!0x%08x", code); return false;
        case MB_ATTACH_ADVISE_FAILED: WL_ORV_ERROR("mb advise failed!0x%08x", code); return false;
    }
    return false;
}

void WhitelistInvoke::UnInitialize() { mb_detach(g_whitelistInvokePluginId, m_dll, m_frame); }

void WhitelistInvoke::Publish_t(int type, int sub_type, void* data, unsigned int size) {
    if (data == nullptr || size == 0) {
        WL_ORV_ERROR("param error.");
        return;
    }
    OrvLockGuard lock(&m_lock);
    if (m_dispatch == nullptr) {
        WL_ORV_ERROR("bus need init first.");
        return;
    }
    WL_ORV_DEBUG("rec one message.");
    _RESPONSE_APP_REQUEST_INFO* native = nullptr;
    WhitelistEvent* event = WhitelistEvent::New(native);
    if (event == nullptr) {
        WL_ORV_ERROR("New WhitelistEvent error.");
        return;
    }
    // The publisher's reference, given back on every way out, exceptions included.
    struct ReleaseOnExit {
        WhitelistEvent* event;
        ~ReleaseOnExit() { event->Release(); }
    } release{event};

    if (Transform(type, sub_type, data, size, *native)) {
        if (m_dispatch->Invoke(event) < 0) {
            WL_ORV_ERROR("Error to Invoke data.");
        }
    }
    WhitelistEvent::DumpEvent(native);
}

void WhitelistInvoke::Publish(int type, int sub_type, void* data, unsigned int size, void* user) {
    if (data != nullptr && size != 0 && user != nullptr) {
        static_cast<WhitelistInvoke*>(user)->Publish_t(type, sub_type, data, size);
    }
}

bool WhitelistInvoke::Transform(int type, int sub_type, void* data, unsigned int size,
                                _RESPONSE_APP_REQUEST_INFO& native) {
    unsigned int id = 0;
    if (type == WL_PUBLISH_ORIGIN_JSON) {
        native.data = copyPayload(data, size, 0);
        if (native.data == nullptr) {
            WL_ORV_WARN("create OriginCltLog buffer failed");
            return false;
        }
        id = kEventOriginCltJson;
    } else if (type == WL_PUBLISH_ACTION) {
        native.data = copyPayload(data, size, kNativeRecordMaxSize);
        if (native.data == nullptr) {
            WL_ORV_WARN("create ActionCltLog buffer failed");
            return false;
        }
        native.sub_type = sub_type;
        id = kEventActionCltType;
    } else {
        return false;
    }
    mb_set_event_id(native, id);
    return true;
}

int WhitelistInvoke::QueryInterface(const _GUID&, void**) { return MB_E_PLUGIN_NOINTERFACE; }

// The singleton lives until process exit: nothing counts it.
int WhitelistInvoke::AddRef() { return 0; }
int WhitelistInvoke::Release() { return 0; }

int WhitelistInvoke::GetUniqueID(unsigned char (*id)[16]) const {
    return mb_copy_plugin_id(g_whitelistInvokePluginId, id);
}

int WhitelistInvoke::GetVersion(unsigned int* version) const { return mb_plugin_version(version); }

int WhitelistInvoke::OnAdvised(MbFrame::IPluginSetting*, MbFrame::IDispatch* dispatch) {
    OrvLockGuard lock(&m_lock);
    m_dispatch = dispatch;
    return 0;
}

int WhitelistInvoke::OnUnadvised(_UNADVISE_REASON) {
    OrvLockGuard lock(&m_lock);
    m_dispatch = nullptr;
    return 0;
}

// Subscribed to nothing: no event can arrive, and none is released here.
int WhitelistInvoke::OnEvent(MbFrame::IEvent*, _RESPONSE_STATUS*) { return 0; }
