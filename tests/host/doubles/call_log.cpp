#include <algorithm>

#include "doubles_state.h"
#include "wl_clock.h"

namespace host_doubles {
namespace {

void recording_usleep(unsigned int microseconds) {
    std::function<void(unsigned int)> hook;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        state().calls.push_back("usleep(" + std::to_string(microseconds) + ")");
        state().sleeps.push_back(microseconds);
        hook = state().script.on_sleep;
    }
    if (hook) hook(microseconds);
}

void recording_sleep(unsigned int seconds) { recording_usleep(seconds * 1000000u); }

}  // namespace

State& state() {
    static State instance;
    return instance;
}

Script& script() { return state().script; }

void reset() {
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        threads.swap(state().threads);
    }
    for (auto& thread : threads) thread.join();

    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.script = Script();
    s.calls.clear();
    s.tasks.clear();
    s.task_results.clear();
    s.task_fn = nullptr;
    s.ipc_table = nullptr;
    s.requests.clear();
    s.responses.clear();
    s.msg_fn = nullptr;
    s.msg_user = nullptr;
    s.sleeps.clear();
    s.asset_calls.clear();
    s.events.clear();
    s.last_tree.clear();
    g_wl_clock.usleep_fn = recording_usleep;
    g_wl_clock.sleep_fn = recording_sleep;
}

void record(const std::string& call) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().calls.push_back(call);
}

void clear_calls() {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().calls.clear();
}

std::vector<std::string> calls() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().calls;
}

std::vector<std::string> calls_starting(const std::string& prefix) {
    std::vector<std::string> out;
    for (const auto& call : calls()) {
        if (call.compare(0, prefix.size(), prefix) == 0) out.push_back(call);
    }
    return out;
}

int count(const std::string& call) {
    auto all = calls();
    return static_cast<int>(std::count(all.begin(), all.end(), call));
}

std::vector<std::string> calls_from(const std::string& call) {
    auto all = calls();
    auto it = std::find(all.begin(), all.end(), call);
    return std::vector<std::string>(it, all.end());
}

void queue_task(const std::string& msg) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().tasks.push_back(msg);
}

std::vector<unsigned int> task_results() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().task_results;
}

task_push_fn registered_task_fn() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().task_fn;
}

ipc_handler_table* registered_ipc_table() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().ipc_table;
}

std::vector<Request> requests() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().requests;
}

std::vector<Response> responses() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().responses;
}

kem_ipc_msg_fn subscribed_fn() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().msg_fn;
}

void* subscribed_user() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().msg_user;
}

std::vector<unsigned int> sleeps() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().sleeps;
}

std::string last_tree() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().last_tree;
}

}  // namespace host_doubles
