// Lets one report through per interval and counts what it held back, so
// that a flood of refusals costs a log line now and then, not a full disk.
#ifndef WL_RATE_LIMIT_H
#define WL_RATE_LIMIT_H

#include <chrono>
#include <cstdint>
#include <mutex>

namespace wlsock {

class RateLimit {
public:
    explicit RateLimit(std::chrono::milliseconds interval = std::chrono::seconds(10)) : m_interval(interval) {}

    // True when this report may be logged; *held_back then tells how many
    // were suppressed since the last one that was.
    bool allow(std::uint64_t* held_back) {
        std::lock_guard<std::mutex> lock(m_lock);
        const auto now = std::chrono::steady_clock::now();
        if (m_logged && now - m_last < m_interval) {
            ++m_suppressed;
            return false;
        }
        m_logged = true;
        m_last = now;
        *held_back = m_suppressed;
        m_suppressed = 0;
        return true;
    }

private:
    const std::chrono::milliseconds m_interval;
    std::mutex m_lock;
    bool m_logged = false;
    std::chrono::steady_clock::time_point m_last;
    std::uint64_t m_suppressed = 0;
};

}  // namespace wlsock

#endif
