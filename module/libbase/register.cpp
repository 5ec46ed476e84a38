#define WL_LOG_SOURCE "register"
#include "register.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "event_queues.h"
#include "mb_contract.h"
#include "whitelist.h"
#include "wl_log.h"

Register* white_register = Register::GetInstance();

namespace {
// sub_type - kFirstActionType selects a bit of these masks.
constexpr unsigned int kFirstActionType = 1026;
constexpr unsigned int kLastMaskBit = 31;
constexpr uint32_t kFileActionMask = 0xf01c0001u;
constexpr uint32_t kProcessActionMask = 0x00000002u;
constexpr uint32_t kNetActionMask = 0x00000038u;

// Both queues refuse an entry once kEventQueueLimit are waiting; counted by
// walking, since the lists keep no size the engines would have to maintain.
template <typename List>
bool queueHasRoom(const List& list) {
    std::size_t count = 0;
    for (auto it = list.begin(); it != list.end(); ++it) {
        ++count;
    }
    return count < kEventQueueLimit;
}
}  // namespace

Register::Register() : m_dll(nullptr), m_frame(nullptr) {}

Register::~Register() = default;

Register* Register::GetInstance() {
    static Register instance;
    return &instance;
}

bool Register::registerInit() {
    int code = 0;
    std::string path;
    switch (mb_attach(this, m_dll, m_frame, code, path)) {
        case MB_ATTACH_DONE: return true;
        case MB_ATTACH_LITE: WL_LOG(LOG_LVL_INFO, "lite no tulmb path: %s, not load", path.c_str()); return true;
        case MB_ATTACH_OPEN_FAILED: WL_LOG(LOG_LVL_ERROR, "mb dll open failed!0x%08x", code); return false;
        case MB_ATTACH_GET_ADDR_FAILED: WL_LOG(LOG_LVL_ERROR, "mb dll_get_addr failed!0x%08x", code); return false;
        case MB_ATTACH_GET_OBJECT_FAILED: WL_LOG(LOG_LVL_ERROR, "mb get object failed!0x%08x", code); return false;
        case MB_ATTACH_ADVISE_FAILED: WL_LOG(LOG_LVL_ERROR, "mb advise failed!0x%08x", code); return false;
    }
    return false;
}

void Register::registerUninit() { mb_detach(g_registerPluginId, m_dll, m_frame); }

int Register::QueryInterface(const _GUID&, void**) { return 0; }

// The singleton lives until process exit: nothing counts it.
int Register::AddRef() { return 0; }
int Register::Release() { return 0; }

int Register::GetUniqueID(unsigned char (*id)[16]) const { return mb_copy_plugin_id(g_registerPluginId, id); }

int Register::GetVersion(unsigned int* version) const { return mb_plugin_version(version); }

int Register::OnAdvised(MbFrame::IPluginSetting* setting, MbFrame::IDispatch*) {
    int result = setting != nullptr ? setting->RegisterEvents(b_RegisterEvent, kRegisterEventCount) : MB_E_INVALIDARG;
    if (result != 0) {
        WL_LOG(LOG_LVL_WARN, "regist event failed %d", result);
    }
    WL_LOG(LOG_LVL_INFO, "regist event succeed");
    return 0;
}

int Register::OnUnadvised(_UNADVISE_REASON) {
    WL_LOG(LOG_LVL_INFO, "OnUnadvised succeed");
    return 0;
}

int Register::OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS*) {
    if (event == nullptr) {
        return 0;
    }
    // The subscriber owns exactly one reference, whatever path is taken.
    struct ReleaseOnExit {
        MbFrame::IEvent* event;
        ~ReleaseOnExit() { event->Release(); }
    } release{event};

    const unsigned int id = event->GetUniqueID();
    _RESPONSE_APP_REQUEST_INFO* native = event->GetNativeEvent();
    if (native == nullptr) {
        return 0;
    }
    if (id == kEventOriginCltJson) {
        if (native->data != nullptr) {
            queueRaspText(static_cast<const char*>(native->data));
        }
        return 0;
    }
    if (id == kEventCollectorOffline) {
        orv_event_set(g_vr_event);
        return 0;
    }
    if (id != kEventActionCltType) {
        WL_LOG(LOG_LVL_ERROR, "Base don't support the type!");
        return 0;
    }
    queueBaseEvent(native->sub_type, native->data);
    return 0;
}

void Register::queueRaspText(const char* text) {
    std::string copy(text);
    OrvLockGuard lock(&g_raspDataLock);
    if (queueHasRoom(g_raspData)) {
        g_raspData.push_back(std::move(copy));
        ++m_raspQueued;
    } else {
        ++m_raspDropped;
    }
}

void Register::queueBaseEvent(int sub_type, void* data) {
    // ~65 KB: off the bus thread's stack, which is not ours to size.
    auto record = std::make_unique<_BASE_EVENTINFO>();  // value-initialised: all zero

    const unsigned int bit = static_cast<unsigned int>(sub_type) - kFirstActionType;
    bool known = false;
    if (bit <= kLastMaskBit && data != nullptr) {
        const uint32_t flag = 1u << bit;
        if (kFileActionMask & flag) {
            m_transformer.TransformFileMsg(*static_cast<const file_event_info*>(data), *record);
            known = true;
        } else if (kProcessActionMask & flag) {
            m_transformer.TransformProcessMsg(*static_cast<const process_event_info*>(data), *record);
            known = true;
        } else if (kNetActionMask & flag) {
            m_transformer.TransformNetEvent(*static_cast<const net_event_info*>(data), *record);
            known = true;
        }
    }
    if (!known) {
        WL_LOG(LOG_LVL_INFO, "Unknown event ID. event ID:%d!", static_cast<int>(kEventActionCltType));
    }
    // An unknown type is queued all the same, as the cleared record: the
    // engine expects it.
    OrvLockGuard lock(&g_baseDataLock);
    if (queueHasRoom(g_baseData)) {
        g_baseData.push_back(*record);
        ++m_baseQueued;
    } else {
        ++m_baseDropped;
    }
}

std::string Register::countersJson() {
    std::size_t base_depth = 0, delay_depth = 0, rasp_depth = 0;
    {
        OrvLockGuard lock(&g_baseDataLock);
        base_depth = g_baseData.size();
        delay_depth = g_baseDelayData.size();
    }
    {
        OrvLockGuard lock(&g_raspDataLock);
        rasp_depth = g_raspData.size();
    }
    char text[320];
    snprintf(text, sizeof(text),
             "{\"base_queued\":%llu,\"base_dropped_full\":%llu,\"base_depth\":%zu,\"base_delay_depth\":%zu,"
             "\"rasp_queued\":%llu,\"rasp_dropped_full\":%llu,\"rasp_depth\":%zu}",
             m_baseQueued.load(), m_baseDropped.load(), base_depth, delay_depth, m_raspQueued.load(),
             m_raspDropped.load(), rasp_depth);
    return text;
}
