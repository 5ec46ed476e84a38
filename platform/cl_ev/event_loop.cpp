#include "event_loop.h"

#include <atomic>
#include <chrono>
#include <vector>

namespace clev {

namespace {
std::atomic<cl_ev_clock_fn> g_clock{nullptr};
}

unsigned long long now_ms() {
    cl_ev_clock_fn clock = g_clock.load(std::memory_order_acquire);
    if (clock) return clock();
    auto since = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<unsigned long long>(std::chrono::duration_cast<std::chrono::milliseconds>(since).count());
}

void set_clock(cl_ev_clock_fn clock) { g_clock.store(clock, std::memory_order_release); }

EventLoop::~EventLoop() {
    for (const PostedTask& task : m_posted) {
        if (task.discard) task.discard(task.arg);
    }
}

void EventLoop::post(const PostedTask& task) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_posted.push_back(task);
}

void EventLoop::addTimer(std::uintptr_t id, unsigned int period_ms, cl_timer_fn fn) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_timers[id] = Timer{fn, period_ms, now_ms() + period_ms};
}

void EventLoop::removeTimer(std::uintptr_t id) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_timers.erase(id);
}

int EventLoop::pump() {
    const unsigned long long now = now_ms();
    std::vector<std::uintptr_t> due;
    std::deque<PostedTask> posted;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        for (auto& entry : m_timers) {
            Timer& timer = entry.second;
            if (timer.due > now) continue;
            due.push_back(entry.first);
            // Keep the phase when on time; after a longer gap start over from now.
            timer.due = (now - timer.due < timer.period) ? timer.due + timer.period : now + timer.period;
        }
        posted.swap(m_posted);
    }
    int ran = 0;
    for (std::uintptr_t id : due) {
        cl_timer_fn fn = nullptr;
        {
            // An earlier callback of this pump may have closed it.
            std::lock_guard<std::mutex> lock(m_lock);
            auto it = m_timers.find(id);
            if (it != m_timers.end()) fn = it->second.fn;
        }
        if (fn) {
            fn();
            ++ran;
        }
    }
    for (const PostedTask& task : posted) {
        task.fn(task.arg);
        ++ran;
    }
    return ran;
}

}  // namespace clev
