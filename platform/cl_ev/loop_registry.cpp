#include "loop_registry.h"

#include <memory>
#include "no_destructor.h"
#include <vector>

namespace clev {

namespace {

// Owns the thread's loop; unregisters it before it goes, with the thread.
struct ThreadLoop {
    std::unique_ptr<EventLoop> loop;
    ~ThreadLoop() {
        if (loop) LoopRegistry::instance().remove(loop.get());
    }
};

thread_local ThreadLoop t_loop;

}  // namespace

LoopRegistry& LoopRegistry::instance() {
    static wl::NoDestructor<LoopRegistry> registry;
    return registry.get();
}

EventLoop* LoopRegistry::current(bool create) {
    if (!t_loop.loop && create) {
        t_loop.loop = std::make_unique<EventLoop>();
        add(t_loop.loop.get());
    }
    return t_loop.loop.get();
}

int LoopRegistry::post(EventLoop* loop, const PostedTask& task) {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (loop && m_loops.count(loop)) {
            loop->post(task);
            return 0;
        }
    }
    if (task.discard) task.discard(task.arg);
    return -1;
}

std::uintptr_t LoopRegistry::startTimer(unsigned int period_ms, cl_timer_fn fn) {
    EventLoop* loop = current(true);
    std::lock_guard<std::mutex> lock(m_lock);
    std::uintptr_t id = m_nextTimerId++;
    if (m_nextTimerId == 0) m_nextTimerId = 1;
    m_timerOwner[id] = loop;
    loop->addTimer(id, period_ms, fn);
    return id;
}

int LoopRegistry::closeTimer(std::uintptr_t id) {
    std::lock_guard<std::mutex> lock(m_lock);
    auto it = m_timerOwner.find(id);
    if (it == m_timerOwner.end()) return -1;
    it->second->removeTimer(id);
    m_timerOwner.erase(it);
    return 0;
}

void LoopRegistry::add(EventLoop* loop) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_loops.insert(loop);
}

void LoopRegistry::remove(EventLoop* loop) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_loops.erase(loop);
    for (auto it = m_timerOwner.begin(); it != m_timerOwner.end();) {
        it = (it->second == loop) ? m_timerOwner.erase(it) : std::next(it);
    }
}

}  // namespace clev
