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
    call_log::reset();
    std::lock_guard<std::mutex> lock(mutex());
    state() = State();
    g_wl_clock.usleep_fn = recording_usleep;
    g_wl_clock.sleep_fn = recording_sleep;
}

}  // namespace host_doubles
