// The real bus library, opened by the test, and a plug-in of the test's own.
#ifndef WL_BUS_LIBRARY_H
#define WL_BUS_LIBRARY_H

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
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
    int getClassObject(const _GUID& clsid, const _GUID& iid, void** out) { return m_entry(clsid, iid, out); }

private:
    void* m_handle = nullptr;
    DllGetClassObject_fn m_entry = nullptr;
    void (*m_setSynchronous)(int) = nullptr;
};

// Subscribes to the given IDs when advised, records what it receives and
// releases it; can be told to hold deliveries until opened.
class TestPlugin : public MbFrame::IPlugin {
public:
    TestPlugin(unsigned char idByte, std::vector<uint32_t> events);

    int QueryInterface(const _GUID&, void**) override { return MB_E_PLUGIN_NOINTERFACE; }
    int AddRef() override { return ++m_refs; }
    int Release() override { return --m_refs; }
    int GetUniqueID(unsigned char (*id)[16]) const override;
    int GetVersion(unsigned int* version) const override;
    int OnAdvised(MbFrame::IPluginSetting* setting, MbFrame::IDispatch* dispatch) override;
    int OnUnadvised(_UNADVISE_REASON reason) override;
    int OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS* status) override;

    void hold();
    void open();
    bool waitReceived(std::size_t count);
    std::vector<unsigned int> received();

    const unsigned char* id() const { return m_id; }
    MbFrame::IDispatch* dispatch() const { return m_dispatch; }
    std::atomic<int> m_refs{0};
    std::atomic<int> m_advised{0};
    std::atomic<int> m_unadvised{0};
    std::atomic<int> m_lastReason{-1};
    // References the event had while OnEvent ran, before the plug-in's release.
    std::atomic<int> m_minRefsSeen{1 << 30};

private:
    unsigned char m_id[16];
    std::vector<event_subscription> m_events;
    MbFrame::IDispatch* m_dispatch = nullptr;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<unsigned int> m_received;
    bool m_holding = false;
};

#endif
