// The C face of the loops.
// The public header comes first so that its functions are exported.
#pragma GCC visibility push(default)
#include "cl_ev.h"
#pragma GCC visibility pop

#include <pthread.h>

#include <cstdint>
#include <memory>

#include "event_loop.h"
#include "loop_registry.h"

using clev::LoopRegistry;

namespace {

struct ThreadStart {
    cl_ev_thread_fn fn;
    void* arg;
};

void* run_isolated(void* raw) {
    std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(raw));
    LoopRegistry::instance().current(true);
    return start->fn(start->arg);
}

int pump_current() {
    clev::EventLoop* loop = LoopRegistry::instance().current(false);
    return loop ? loop->pump() : -1;
}

}  // namespace

extern "C" {

int cl_ev_create_isolated_thread(unsigned long* thread_id, int flags, cl_ev_thread_fn fn, void* arg) {
    if (!fn) return -1;
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) return -1;
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    auto start = std::make_unique<ThreadStart>(ThreadStart{fn, arg});
    pthread_t tid;
    int rc = pthread_create(&tid, &attr, run_isolated, start.get());
    pthread_attr_destroy(&attr);
    if (rc != 0) return -1;
    start.release();  // the thread owns it now
    if (thread_id) *thread_id = static_cast<unsigned long>(tid);
    return 0;
}

int cl_ev_loop_nowait(int flags) { return pump_current(); }

int cl_event_loop_once(void) { return pump_current(); }

cl_ev_loop_t cl_ev_current_loop(void) { return LoopRegistry::instance().current(true); }

int cl_ev_post(cl_ev_loop_t loop, cl_task_fn fn, void* arg) { return cl_ev_post_owned(loop, fn, nullptr, arg); }

int cl_ev_post_owned(cl_ev_loop_t loop, cl_task_fn fn, cl_task_fn discard, void* arg) {
    if (!fn) {
        if (discard) discard(arg);
        return -1;
    }
    return LoopRegistry::instance().post(static_cast<clev::EventLoop*>(loop), clev::PostedTask{fn, discard, arg});
}

cl_timer_t cl_timerplus_start(void* loop, int flags, unsigned int period_ms, cl_timer_fn callback, void* reserved) {
    if (!callback || period_ms == 0) return nullptr;
    return reinterpret_cast<cl_timer_t>(LoopRegistry::instance().startTimer(period_ms, callback));
}

int cl_timerplus_close(cl_timer_t timer) {
    if (!timer) return -1;
    return LoopRegistry::instance().closeTimer(reinterpret_cast<std::uintptr_t>(timer));
}

void cl_ev_set_clock(cl_ev_clock_fn clock) { clev::set_clock(clock); }

}  // extern "C"
