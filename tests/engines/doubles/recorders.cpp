#include "recorders.h"

#include <deque>
#include <mutex>
#include <string>

#include "cl_ev.h"

namespace recorders {
namespace {
struct Records {
    std::deque<bool> timerScript;
    std::vector<Timer> timers;
    bool registerOk = true;
};

std::mutex g_mutex;
Records g_records;

// Runs f on the records under their lock.
template <class F>
auto locked(F f) {
    std::lock_guard<std::mutex> lock(g_mutex);
    return f(g_records);
}
}  // namespace

void reset() {
    call_log::reset();
    module_fakes::reset();
    locked([](Records& r) { r = Records(); });
}

void scriptTimerStarts(const std::vector<bool>& results) {
    locked([&](Records& r) { r.timerScript.assign(results.begin(), results.end()); });
}

std::vector<Timer> timers() {
    return locked([](Records& r) { return r.timers; });
}

void setRegisterInitResult(bool ok) {
    locked([ok](Records& r) { r.registerOk = ok; });
}

bool registerInitResult() {
    return locked([](Records& r) { return r.registerOk; });
}

}  // namespace recorders

extern "C" {

cl_timer_t cl_timerplus_start(void*, int, unsigned int period_ms, cl_timer_fn callback, void*) {
    call_log::record("timer start");
    return recorders::locked([&](recorders::Records& r) -> cl_timer_t {
        bool ok = r.timerScript.empty() || r.timerScript.front();
        if (!r.timerScript.empty()) r.timerScript.pop_front();
        if (!ok) return nullptr;
        r.timers.push_back({period_ms, callback});
        return reinterpret_cast<cl_timer_t>(r.timers.size());  // distinct, never null
    });
}

int cl_timerplus_close(cl_timer_t timer) {
    call_log::record("timer close " + std::to_string(reinterpret_cast<uintptr_t>(timer)));
    return 0;
}

}  // extern "C"
