#include "bus_library.h"

#include <dlfcn.h>

#include <cstring>

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

int TestPlugin::OnAdvised(MbFrame::IPluginSetting* setting, MbFrame::IDispatch* dispatch) {
    m_dispatch = dispatch;
    return setting->RegisterEvents(m_events.data(), static_cast<unsigned int>(m_events.size()));
}

int TestPlugin::OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS*) {
    ++m_received;
    event->Release();
    return 0;
}
