#include "bus_library.h"

#include <dlfcn.h>

#include <chrono>

#include "mb_contract.h"

BusLibrary::BusLibrary() {
    m_handle = dlopen(WL_TEST_PLUGIN_DIR "/libtulmb.1.so", RTLD_NOW);
    if (m_handle != nullptr) {
        m_entry = reinterpret_cast<DllGetClassObject_fn>(dlsym(m_handle, "DllGetClassObject"));
        m_setSynchronous = reinterpret_cast<void (*)(int)>(dlsym(m_handle, "tulmb_set_synchronous"));
    }
}

BusLibrary::~BusLibrary() {
    if (m_handle != nullptr) {
        m_setSynchronous(0);
        dlclose(m_handle);
    }
}

MbFrame::IRtmFrame* BusLibrary::newFrame() {
    void* frame = nullptr;
    if (m_entry(CLSID_NULL, *MbFrame::IRtmFrame::IRtmFrame_ID, &frame) != 0) {
        return nullptr;
    }
    return static_cast<MbFrame::IRtmFrame*>(frame);
}

TestPlugin::TestPlugin(unsigned char idByte, std::vector<uint32_t> events) {
    std::memset(m_id, idByte, sizeof(m_id));
    for (uint32_t id : events) {
        m_events.push_back({id, 1});
    }
}

int TestPlugin::GetUniqueID(unsigned char (*id)[16]) const {
    std::memcpy(*id, m_id, sizeof(m_id));
    return 0;
}

int TestPlugin::GetVersion(unsigned int* version) const {
    *version = 1;
    return 0;
}

int TestPlugin::OnAdvised(MbFrame::IPluginSetting* setting, MbFrame::IDispatch* dispatch) {
    ++m_advised;
    m_dispatch = dispatch;
    return setting->RegisterEvents(m_events.data(), static_cast<unsigned int>(m_events.size()));
}

int TestPlugin::OnUnadvised(_UNADVISE_REASON reason) {
    ++m_unadvised;
    m_lastReason = reason;
    return 0;
}

int TestPlugin::OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS*) {
    // Probe the count: AddRef and Release return it.
    const int refs = event->AddRef() - 1;
    event->Release();
    int seen = m_minRefsSeen.load();
    while (refs < seen && !m_minRefsSeen.compare_exchange_weak(seen, refs)) {
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_holding; });
    m_received.push_back(event->GetUniqueID());
    m_changed.notify_all();
    lock.unlock();
    event->Release();
    return 0;
}

void TestPlugin::hold() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_holding = true;
}

void TestPlugin::open() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_holding = false;
    m_changed.notify_all();
}

bool TestPlugin::waitReceived(std::size_t count) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(10), [&] { return m_received.size() >= count; });
}

std::vector<unsigned int> TestPlugin::received() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received;
}
