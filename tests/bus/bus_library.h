// The real bus library, opened by the test, and a plug-in of the test's own.
#ifndef WL_BUS_LIBRARY_H
#define WL_BUS_LIBRARY_H

#include <atomic>
#include <vector>

#include "mbframe.h"

class BusLibrary {
public:
    BusLibrary();
    ~BusLibrary();
    BusLibrary(const BusLibrary&) = delete;
    BusLibrary& operator=(const BusLibrary&) = delete;

    bool loaded() const { return m_handle != nullptr && m_entry != nullptr; }
    void setSynchronous(bool on) { m_setSynchronous(on ? 1 : 0); }
    // A new frame with one reference, or null.
    MbFrame::IRtmFrame* newFrame();

private:
    void* m_handle = nullptr;
    DllGetClassObject_fn m_entry = nullptr;
    void (*m_setSynchronous)(int) = nullptr;
};

// Subscribes to the given IDs when advised, counts and releases what it
// receives.
class TestPlugin : public MbFrame::IPlugin {
public:
    TestPlugin(unsigned char idByte, std::vector<uint32_t> events);

    int QueryInterface(const _GUID&, void**) override { return MB_E_PLUGIN_NOINTERFACE; }
    int AddRef() override { return 1; }
    int Release() override { return 1; }
    int GetUniqueID(unsigned char (*id)[16]) const override;
    int GetVersion(unsigned int* version) const override {
        *version = 1;
        return 0;
    }
    int OnAdvised(MbFrame::IPluginSetting* setting, MbFrame::IDispatch* dispatch) override;
    int OnUnadvised(_UNADVISE_REASON) override {
        ++m_unadvised;
        return 0;
    }
    int OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS* status) override;

    const unsigned char* id() const { return m_id; }
    MbFrame::IDispatch* dispatch() const { return m_dispatch; }
    std::atomic<int> m_received{0};
    std::atomic<int> m_unadvised{0};

private:
    unsigned char m_id[16];
    std::vector<event_subscription> m_events;
    MbFrame::IDispatch* m_dispatch = nullptr;
};

#endif
