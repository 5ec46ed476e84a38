// The collector channel as a recorder with scripted init results.
// The public headers come first so that their functions are exported.
#pragma GCC visibility push(default)
#include "vrccl_action.h"
#include "vrccl_control.h"
#pragma GCC visibility pop

#include <algorithm>
#include <deque>
#include <mutex>
#include <set>
#include <vector>

#include "immortal.h"

namespace {

struct Channel {
    std::mutex lock;
    std::deque<int> script;
    int initCalls = 0;
    int freeCalls = 0;
    bool up = false;
    std::vector<vrccl_subscribe_call> calls;
    std::set<int> filter;
};

Channel& channel() {
    static wlsock::Immortal<Channel> state;  // the work thread may still call in while the process exits
    return state.get();
}

}  // namespace

extern "C" {

int vrccl_action_init(void) {
    Channel& ch = channel();
    std::lock_guard<std::mutex> lock(ch.lock);
    ++ch.initCalls;
    int result = 0;
    if (!ch.script.empty()) {
        result = ch.script.front();
        ch.script.pop_front();
    }
    ch.up = (result == 0);
    return result;
}

void vrccl_action_free(void) {
    Channel& ch = channel();
    std::lock_guard<std::mutex> lock(ch.lock);
    ++ch.freeCalls;
    ch.up = false;
}

int vrccl_action_subscribe(int action, int id, int reserved) {
    Channel& ch = channel();
    std::lock_guard<std::mutex> lock(ch.lock);
    ch.calls.push_back(vrccl_subscribe_call{action, id, reserved});
    if (action == VRCCL_ACTION_ADD_PID) {
        ch.filter.insert(id);
    } else if (action == VRCCL_ACTION_DEL_PID) {
        ch.filter.erase(id);
    } else {
        return -1;
    }
    return 0;
}

void vrccl_control_set_init_results(const int* results, int count) {
    Channel& ch = channel();
    std::lock_guard<std::mutex> lock(ch.lock);
    ch.script.clear();
    for (int i = 0; results && i < count; ++i) ch.script.push_back(results[i]);
}

void vrccl_control_reset(void) {
    Channel& ch = channel();
    std::lock_guard<std::mutex> lock(ch.lock);
    ch.script.clear();
    ch.initCalls = 0;
    ch.freeCalls = 0;
    ch.up = false;
    ch.calls.clear();
    ch.filter.clear();
}

int vrccl_control_init_calls(void) {
    Channel& ch = channel();
    std::lock_guard<std::mutex> lock(ch.lock);
    return ch.initCalls;
}

int vrccl_control_free_calls(void) {
    Channel& ch = channel();
    std::lock_guard<std::mutex> lock(ch.lock);
    return ch.freeCalls;
}

int vrccl_control_is_up(void) {
    Channel& ch = channel();
    std::lock_guard<std::mutex> lock(ch.lock);
    return ch.up ? 1 : 0;
}

int vrccl_control_subscribe_calls(vrccl_subscribe_call* calls, int max) {
    Channel& ch = channel();
    std::lock_guard<std::mutex> lock(ch.lock);
    int total = static_cast<int>(ch.calls.size());
    if (calls) std::copy_n(ch.calls.begin(), std::min(std::max(max, 0), total), calls);
    return total;
}

int vrccl_control_filter(int* ids, int max) {
    Channel& ch = channel();
    std::lock_guard<std::mutex> lock(ch.lock);
    int total = static_cast<int>(ch.filter.size());
    if (ids) std::copy_n(ch.filter.begin(), std::min(std::max(max, 0), total), ids);
    return total;
}

}  // extern "C"
