// Exponential back-off between attempts at a sink that failed.
#ifndef WL_FORWARD_BACKOFF_H
#define WL_FORWARD_BACKOFF_H

#include <chrono>

namespace wlforward {

class Backoff {
public:
    Backoff(std::chrono::milliseconds initial, std::chrono::milliseconds max)
        : m_initial(initial), m_max(max < initial ? initial : max), m_next(initial) {}

    // The wait before the next attempt; each call doubles the one after, up
    // to the maximum.
    std::chrono::milliseconds next() {
        std::chrono::milliseconds now = m_next;
        m_next = (m_next > m_max / 2) ? m_max : m_next * 2;
        return now;
    }
    void reset() { m_next = m_initial; }

private:
    std::chrono::milliseconds m_initial;
    std::chrono::milliseconds m_max;
    std::chrono::milliseconds m_next;
};

}  // namespace wlforward

#endif
