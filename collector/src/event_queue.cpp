#include "event_queue.h"

namespace wlc {

void EventQueue::onEvent(HostEvent&& event) {
    std::size_t kind = index(event.kind);
    ++m_received[kind];
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        // Exits get extra room: the process table is emptied by them.
        std::size_t room = m_capacity + (event.kind == EventKind::Exit ? m_capacity / 4 : 0);
        if (m_closed || m_events.size() >= room) {
            ++m_dropped[kind];
            return;
        }
        m_events.push_back(std::move(event));
    }
    m_ready.notify_one();
}

std::optional<HostEvent> EventQueue::pop(std::chrono::milliseconds wait) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_ready.wait_for(lock, wait, [this] { return !m_events.empty() || m_closed; })) return std::nullopt;
    if (m_events.empty()) return std::nullopt;
    HostEvent event = std::move(m_events.front());
    m_events.pop_front();
    return event;
}

void EventQueue::close() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
    }
    m_ready.notify_all();
}

std::size_t EventQueue::depth() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events.size();
}

}  // namespace wlc
