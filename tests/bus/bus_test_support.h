// Shared pieces of the bus tests: a counted test event and the engines'
// queues; collector records come from event_records.h.
#ifndef WL_BUS_TEST_SUPPORT_H
#define WL_BUS_TEST_SUPPORT_H

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "event_info.h"
#include "event_records.h"
#include "event_queues.h"
#include "mb_contract.h"
#include "whitelist_mb.h"

// An event that counts its references.
class CountedEvent : public MbFrame::IEvent {
public:
    CountedEvent(unsigned int id, void* data, int sub_type, bool withNative = true) : m_withNative(withNative) {
        std::memset(&m_native, 0, sizeof(m_native));
        mb_set_event_id(m_native, id);
        m_native.data = data;
        m_native.sub_type = sub_type;
    }
    int QueryInterface(const _GUID&, void**) override { return MB_E_NOINTERFACE; }
    int AddRef() override { return ++m_count; }
    int Release() override { return --m_count; }
    unsigned int GetUniqueID() const override { return mb_event_id(m_native); }
    bool AsyncDroppable() const override { return false; }
    _RESPONSE_APP_REQUEST_INFO* GetNativeEvent() override { return m_withNative ? &m_native : nullptr; }

    int count() const { return m_count.load(); }

private:
    std::atomic<int> m_count{0};
    bool m_withNative;
    _RESPONSE_APP_REQUEST_INFO m_native;
};

// Empties the engines' queues before and after a test.
struct QueueReset {
    QueueReset() { clear(); }
    ~QueueReset() { clear(); }
    static void clear();
};

// Copies of what the engines' queues hold.
std::vector<_BASE_EVENTINFO> baseRecords();
std::vector<std::string> raspTexts();
inline std::size_t baseQueued() { return baseRecords().size(); }
inline std::size_t raspQueued() { return raspTexts().size(); }

#endif
