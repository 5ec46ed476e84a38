// The bounded hand-over from back-end threads to the collector's one
// enrichment thread. A full queue drops the newest event and counts it.
#ifndef WLC_EVENT_QUEUE_H
#define WLC_EVENT_QUEUE_H

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

#include "capture_backend.h"

namespace wlc {

class EventQueue : public EventSink {
public:
    explicit EventQueue(std::size_t capacity = 65536) : m_capacity(capacity) {}

    void onEvent(HostEvent&& event) override;
    // The oldest event, or nothing once the wait ran out or close() was called.
    std::optional<HostEvent> pop(std::chrono::milliseconds wait);
    void close();

    uint64_t received(EventKind kind) const { return m_received[index(kind)].load(); }
    uint64_t dropped(EventKind kind) const { return m_dropped[index(kind)].load(); }
    std::size_t depth() const;

private:
    static std::size_t index(EventKind kind) { return static_cast<std::size_t>(kind); }

    const std::size_t m_capacity;
    mutable std::mutex m_mutex;
    std::condition_variable m_ready;
    std::deque<HostEvent> m_events;
    bool m_closed = false;
    std::array<std::atomic<uint64_t>, kEventKindCount> m_received{};
    std::array<std::atomic<uint64_t>, kEventKindCount> m_dropped{};
};

}  // namespace wlc

#endif
