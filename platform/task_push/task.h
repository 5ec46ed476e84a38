// One pushed command and the way its result gets back to whoever waits.
#ifndef TASKPUSH_TASK_H
#define TASKPUSH_TASK_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace taskpush {

class Task {
public:
    enum class State { Queued, Done, Cancelled };

    // result/done: optional in-process waiter's slots.
    Task(std::string msg, unsigned int* result, volatile int* done)
        : m_msg(std::move(msg)), m_result(result), m_done(done) {}

    const std::string& message() const { return m_msg; }

    void finish(unsigned int code) {
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_state = State::Done;
            m_code = code;
            if (m_result) *m_result = code;
            if (m_done) __atomic_store_n(m_done, 1, __ATOMIC_SEQ_CST);
        }
        m_changed.notify_all();
    }

    // The handler went away before running it; an in-process waiter sees -1.
    void cancel() {
        {
            std::lock_guard<std::mutex> lock(m_lock);
            if (m_state != State::Queued) return;
            m_state = State::Cancelled;
            if (m_done) __atomic_store_n(m_done, -1, __ATOMIC_SEQ_CST);
        }
        m_changed.notify_all();
    }

    // The state once it left the queue, or Queued when the time ran out.
    State waitFor(std::chrono::milliseconds timeout, unsigned int* code) {
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait_for(lock, timeout, [this] { return m_state != State::Queued; });
        *code = m_code;
        return m_state;
    }

private:
    const std::string m_msg;
    unsigned int* const m_result;
    volatile int* const m_done;
    std::mutex m_lock;
    std::condition_variable m_changed;
    State m_state = State::Queued;
    unsigned int m_code = 0;
};

}  // namespace taskpush

#endif
