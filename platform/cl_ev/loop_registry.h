// Which loops are alive and which loop owns each timer, so that a post to a
// finished thread's loop or a close of a stale timer handle is refused
// instead of touching freed memory.
#ifndef CLEV_LOOP_REGISTRY_H
#define CLEV_LOOP_REGISTRY_H

#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "event_loop.h"

namespace wl {
template <typename T>
class NoDestructor;
}

namespace clev {

class LoopRegistry {
public:
    static LoopRegistry& instance();

    // The calling thread's loop; made (and owned by the thread) when create.
    EventLoop* current(bool create);
    // 0 when queued; otherwise the task was discarded.
    int post(EventLoop* loop, const PostedTask& task);
    // A timer on the calling thread's loop; 0 on failure.
    std::uintptr_t startTimer(unsigned int period_ms, cl_timer_fn fn);
    int closeTimer(std::uintptr_t id);

    void add(EventLoop* loop);
    void remove(EventLoop* loop);

private:
    LoopRegistry() = default;
    std::mutex m_lock;
    std::unordered_set<EventLoop*> m_loops;
    std::unordered_map<std::uintptr_t, EventLoop*> m_timerOwner;
    std::uintptr_t m_nextTimerId = 1;

    friend class wl::NoDestructor<LoopRegistry>;
};

}  // namespace clev

#endif
