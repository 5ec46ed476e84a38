#include <algorithm>
#include <thread>

#include "host_doubles.h"
#include "wl_clock.h"

namespace host_doubles {
namespace {

std::vector<std::thread> g_threads;

void recording_usleep(unsigned int microseconds) { record("usleep(" + std::to_string(microseconds) + ")"); }
void recording_sleep(unsigned int seconds) { recording_usleep(seconds * 1000000u); }

}  // namespace

std::mutex& mutex() {
    static std::mutex instance;
    return instance;
}

State& state() {
    static State instance;
    return instance;
}

void start_thread(void* (*fn)(void*), void* arg) { g_threads.emplace_back(fn, arg); }

void reset() {
    for (auto& thread : g_threads) thread.join();
    g_threads.clear();
    std::lock_guard<std::mutex> lock(mutex());
    state() = State();
    g_wl_clock.usleep_fn = recording_usleep;
    g_wl_clock.sleep_fn = recording_sleep;
}

void record(const std::string& call) {
    std::lock_guard<std::mutex> lock(mutex());
    state().calls.push_back(call);
}

int scripted(const std::string& call, const std::string& name) {
    record(call);
    std::lock_guard<std::mutex> lock(mutex());
    auto found = state().results.find(name);
    return found == state().results.end() ? 0 : found->second;
}

std::vector<std::string> calls() {
    std::lock_guard<std::mutex> lock(mutex());
    return state().calls;
}

int count(const std::string& call) {
    auto all = calls();
    return static_cast<int>(std::count(all.begin(), all.end(), call));
}

std::vector<std::string> calls_from(const std::string& call) {
    auto all = calls();
    return std::vector<std::string>(std::find(all.begin(), all.end(), call), all.end());
}

}  // namespace host_doubles
