#define WL_LOG_SOURCE "register"

#include "register.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>

#include "event_queues.h"
#include "mb_contract.h"
#include "whitelist.h"
#include "wl_log.h"

Register* white_register = Register::GetInstance();

namespace {
// The bits of the given action types; a type that cannot be routed does not
// compile.
constexpr uint32_t actionMask(std::initializer_list<int> types) {
    uint32_t mask = 0;
    for (int type : types) {
        if (type < kFirstRoutedActionType || type > kLastRoutedActionType) throw "action type outside the masks";
        mask |= 1u << (type - kFirstRoutedActionType);
    }
    return mask;
}

// The bits of every action type from first to last.
constexpr uint32_t actionRangeMask(int first, int last) {
    uint32_t mask = 0;
    for (int type = first; type <= last; ++type) mask |= actionMask({type});
    return mask;
}

// Which record shape each action type carries. The file shape also takes the
// types after time modification up to the last routable one: the bus may carry
// them, though the collector sends none.
constexpr uint32_t kFileActionMask =
    actionMask({ACTION_FILE_CREATION, ACTION_FILE_MODIFICATION, ACTION_FILE_DELETION, ACTION_FILE_RENAMING}) |
    actionRangeMask(ACTION_FILE_TIME_MODIFICATION, kLastRoutedActionType);
constexpr uint32_t kProcessActionMask = actionMask({ACTION_PROCESS_CREATION});
constexpr uint32_t kNetActionMask = actionMask({ACTION_NETWORK_CONNECTION, ACTION_DNS_QUERY, ACTION_PORT_LISTENING});

// The masks as the bus contract fixes them; a new kind changes them here too.
static_assert(kFileActionMask == 0xf01c0001u, "file action types");
static_assert(kProcessActionMask == 0x00000002u, "process action types");
static_assert(kNetActionMask == 0x00000038u, "network action types");

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

    // Unsigned, so that a type below the first one is out of range as well.
    const unsigned int bit = static_cast<unsigned int>(sub_type) - static_cast<unsigned int>(kFirstRoutedActionType);
    bool known = false;
    if (bit <= static_cast<unsigned int>(kLastRoutedActionType - kFirstRoutedActionType) && data != nullptr) {
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
