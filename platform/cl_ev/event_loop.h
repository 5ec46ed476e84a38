// One thread's loop: its timers and the tasks posted to it. Only the owning
// thread pumps it; posting and timer changes may come from anywhere.
#ifndef CLEV_EVENT_LOOP_H
#define CLEV_EVENT_LOOP_H

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>

#include "cl_ev.h"

namespace clev {

unsigned long long now_ms();
void set_clock(cl_ev_clock_fn clock);

struct PostedTask {
    cl_task_fn fn;
    cl_task_fn discard;  // may be null
    void* arg;
};

class EventLoop {
public:
    EventLoop() = default;
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    void post(const PostedTask& task);
    void addTimer(std::uintptr_t id, unsigned int period_ms, cl_timer_fn fn);
    void removeTimer(std::uintptr_t id);
    // Runs the timers due and the tasks queued at entry; returns how many ran.
    int pump();

private:
    struct Timer {
        cl_timer_fn fn;
        unsigned long long period;
        unsigned long long due;
    };
    std::mutex m_lock;
    std::map<std::uintptr_t, Timer> m_timers;  // ordered by id: oldest timer fires first
    std::deque<PostedTask> m_posted;
};

}  // namespace clev

#endif
