#include "offline_notice.h"

#include <dlfcn.h>

#include <cstring>
#include <new>
#include <string>

#include "unix_socket.h"
#include "vrccl_log.h"

namespace vrccl {
namespace {

constexpr char kBusLibrary[] = "@/../agent_plugins/libtulmb.1.so";
constexpr unsigned int kEventCollectorOffline = 1022;
constexpr int kAdviseFlag = 1;
constexpr unsigned char kPluginId[16] = {0x5e, 0x07, 0xc1, 0x1a, 0x0f, 0xf1, 0x4e, 0x22,
                                         0x9a, 0x6b, 0x10, 0x22, 0xc0, 0x11, 0xec, 0x70};

constexpr _GUID interfaceId(const char* name) { return _GUID{interface_id_hash(name), 0, 0, {0}}; }
constexpr _GUID kEventInterface = interfaceId("IEvent");
constexpr _GUID kFrameInterface = interfaceId("IRtmFrame");
constexpr _GUID kNullClass = {0, 0, 0, {0}};

bool sameId(const _GUID& a, const _GUID& b) { return std::memcmp(&a, &b, sizeof(_GUID)) == 0; }

// Freed by its last Release, as the bus contract has it.
class OfflineEvent final : public MbFrame::IEvent {
public:
    OfflineEvent() {
        std::memset(&m_native, 0, sizeof(m_native));
        m_native.event_id = static_cast<uint16_t>(kEventCollectorOffline & MB_EVENT_ID_MASK);
    }
    int QueryInterface(const _GUID& iid, void** out) override {
        if (out == nullptr) return MB_E_POINTER;
        if (!sameId(iid, kEventInterface)) {
            *out = nullptr;
            return MB_E_NOINTERFACE;
        }
        AddRef();
        *out = this;
        return 0;
    }
    unsigned int GetUniqueID() const override { return m_native.event_id & MB_EVENT_ID_MASK; }
    // A lost notice would leave the module waiting on a dead collector.
    bool AsyncDroppable() const override { return false; }
    _RESPONSE_APP_REQUEST_INFO* GetNativeEvent() override { return &m_native; }

private:
    ~OfflineEvent() override = default;
    _RESPONSE_APP_REQUEST_INFO m_native;
};

}  // namespace

bool OfflineNotice::attach() {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_frame != nullptr) return true;
    std::string path = wlsock::resolve_path(kBusLibrary);
    void* library = ::dlopen(path.c_str(), RTLD_NOW);
    if (library == nullptr) {
        VRCCL_LOG(LOG_LVL_ERROR,
                  "cannot load the bus library %s (%s): the module will not hear when the collector "
                  "goes away",
                  path.c_str(), ::dlerror());
        return false;
    }
    auto entry = reinterpret_cast<DllGetClassObject_fn>(::dlsym(library, "DllGetClassObject"));
    void* object = nullptr;
    int rc = entry != nullptr ? entry(kNullClass, kFrameInterface, &object) : MB_E_FAIL;
    if (rc != 0 || object == nullptr) {
        VRCCL_LOG(LOG_LVL_ERROR, "the bus library %s gives no frame (0x%08x): offline notices cannot be sent",
                  path.c_str(), static_cast<unsigned>(rc));
        ::dlclose(library);
        return false;
    }
    auto* frame = static_cast<MbFrame::IRtmFrame*>(object);
    rc = frame->Advise(&m_plugin, kAdviseFlag);
    if (rc != 0) {
        VRCCL_LOG(LOG_LVL_ERROR,
                  "the bus refused the collector client's plug-in (0x%08x): offline notices cannot "
                  "be sent",
                  static_cast<unsigned>(rc));
        frame->Release();
        ::dlclose(library);
        return false;
    }
    m_library = library;
    m_frame = frame;
    return true;
}

void OfflineNotice::detach() {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_frame == nullptr) return;
    m_frame->Unadvise(kPluginId);
    m_frame->Release();
    m_frame = nullptr;
    ::dlclose(m_library);
    m_library = nullptr;
}

bool OfflineNotice::publish() {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_frame == nullptr) {
        VRCCL_LOG(LOG_LVL_ERROR, "collector offline, but not attached to the bus: the module is not told");
        return false;
    }
    auto* event = new (std::nothrow) OfflineEvent();
    if (event == nullptr) {
        VRCCL_LOG(LOG_LVL_ERROR, "no memory for the collector-offline event");
        return false;
    }
    event->AddRef();
    int rc = m_plugin.invoke(event);
    event->Release();
    if (rc < 0) {
        VRCCL_LOG(LOG_LVL_ERROR, "the bus did not take the collector-offline event (0x%08x)",
                  static_cast<unsigned>(rc));
        return false;
    }
    VRCCL_LOG(LOG_LVL_INFO, "published collector offline (event %u)", kEventCollectorOffline);
    return true;
}

int OfflineNotice::Plugin::QueryInterface(const _GUID&, void** out) {
    if (out != nullptr) *out = nullptr;
    return MB_E_PLUGIN_NOINTERFACE;
}

int OfflineNotice::Plugin::GetUniqueID(unsigned char (*id)[16]) const {
    if (id == nullptr) return MB_E_INVALIDARG;
    std::memcpy(*id, kPluginId, sizeof(kPluginId));
    return 0;
}

int OfflineNotice::Plugin::GetVersion(unsigned int* version) const {
    if (version == nullptr) return MB_E_INVALIDARG;
    *version = 1;
    return 0;
}

int OfflineNotice::Plugin::OnAdvised(MbFrame::IPluginSetting*, MbFrame::IDispatch* dispatch) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_dispatch = dispatch;
    return 0;
}

int OfflineNotice::Plugin::OnUnadvised(_UNADVISE_REASON) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_dispatch = nullptr;
    return 0;
}

int OfflineNotice::Plugin::OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS*) {
    if (event != nullptr) event->Release();
    return 0;
}

int OfflineNotice::Plugin::invoke(MbFrame::IEvent* event) {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_dispatch != nullptr ? m_dispatch->Invoke(event) : MB_E_FAIL;
}

}  // namespace vrccl
