#include "engine_test_env.h"

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/prctl.h>

#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>

#include "base.h"
#include "dirutils.h"
#include "event_queues.h"
#include "log_capture.h"
#include "orv_log.h"
#include "rasp.h"
#include "recorders.h"
#include "wl_clock.h"

namespace {

struct ClockState {
    time_t now = 1700000000;
    bool gated = false;
    int permits = 0;
    int entered = 0;
    std::map<std::string, int> usleeps;
    std::chrono::microseconds pause{1000};
    std::map<std::string, int> held;  // thread name -> passes granted
};

// Never destroyed: engines left running at exit keep sleeping through them.
std::mutex& g_clockMutex = *new std::mutex;
std::condition_variable& g_clockChanged = *new std::condition_variable;
ClockState& g_clock = *new ClockState;

// Runs f on the clock under its lock and wakes a gated sleep to look again.
template <class F>
auto with_clock(F f) {
    struct Wake {
        ~Wake() { g_clockChanged.notify_all(); }
    } wake;
    std::lock_guard<std::mutex> lock(g_clockMutex);
    return f(g_clock);
}

void fake_usleep(unsigned int) {
    char name[32] = {0};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    {
        std::unique_lock<std::mutex> lock(g_clockMutex);
        ++g_clock.usleeps[name];
        g_clockChanged.notify_all();
        g_clockChanged.wait(lock, [&] {
            auto held = g_clock.held.find(name);
            return held == g_clock.held.end() || held->second > 0;
        });
        auto held = g_clock.held.find(name);
        if (held != g_clock.held.end()) --held->second;
    }
    std::this_thread::sleep_for(with_clock([](ClockState& c) { return c.pause; }));
}

void fake_sleep(unsigned int) {
    std::unique_lock<std::mutex> lock(g_clockMutex);
    ++g_clock.entered;
    g_clockChanged.wait(lock, [] { return !g_clock.gated || g_clock.permits > 0; });
    if (g_clock.gated) {
        --g_clock.permits;
        return;
    }
    lock.unlock();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

time_t fake_time(time_t* out) {
    time_t now = FakeClock::now();
    if (out != nullptr) *out = now;
    return now;
}

template <class Queue, class Item>
void push_bounded(orv_mutex_t* lock, Queue& queue, const Item& item) {
    orv_mutex_lock(lock);
    if (queue.size() < kEventQueueLimit) {
        queue.push_back(item);
    }
    orv_mutex_unlock(lock);
}

template <class Queue>
size_t locked_size(orv_mutex_t* lock, const Queue& queue) {
    orv_mutex_lock(lock);
    size_t n = queue.size();
    orv_mutex_unlock(lock);
    return n;
}

}  // namespace

void FakeClock::install() {
    with_clock([](ClockState& c) { c = ClockState(); });
    g_wl_clock = {fake_usleep, fake_sleep, fake_time};
}

void FakeClock::setTime(time_t now) {
    with_clock([now](ClockState& c) { c.now = now; });
}

time_t FakeClock::now() {
    return with_clock([](ClockState& c) { return c.now; });
}

void FakeClock::gate(bool on) {
    with_clock([on](ClockState& c) {
        c.gated = on;
        c.permits = 0;
    });
}

void FakeClock::allowSleeps(int n) {
    with_clock([n](ClockState& c) { c.permits += n; });
}

int FakeClock::sleepsEntered() {
    return with_clock([](ClockState& c) { return c.entered; });
}

int FakeClock::usleepsOf(const std::string& threadName) {
    return with_clock([&](ClockState& c) { return c.usleeps[threadName]; });
}

void FakeClock::setRealPause(std::chrono::microseconds pause) {
    with_clock([pause](ClockState& c) { c.pause = pause; });
}

void FakeClock::holdThread(const std::string& threadName, bool held) {
    with_clock([&](ClockState& c) {
        if (held)
            c.held[threadName] = 0;
        else
            c.held.erase(threadName);
    });
}

void FakeClock::passThread(const std::string& threadName, int passes) {
    with_clock([&](ClockState& c) { c.held[threadName] += passes; });
}

void FakeClock::releaseThreads() {
    with_clock([](ClockState& c) { c.held.clear(); });
}

bool held_elsewhere(orv_mutex_t mutex) {
    // The handle leads to the platform's record, whose first member is the
    // pthread mutex.
    pthread_mutex_t* native = static_cast<pthread_mutex_t*>(mutex);
    bool held = false;
    std::thread([&] {
        int rc = pthread_mutex_trylock(native);
        if (rc == 0) pthread_mutex_unlock(native);
        held = rc == EBUSY;
    }).join();
    return held;
}

bool wait_calls(fake_model::Engine engine, const std::string& op, int n) {
    return waitUntil([&] { return fake_model::Library::instance().count(engine, op) >= n; });
}

bool initialize(fake_model::Engine engine) {
    return engine == fake_model::Engine::Base ? BaseEngine::GetInstance()->Initialize()
                                              : RaspEngine::GetInstance()->Initialize();
}

void queue_base_event(const _BASE_EVENTINFO& event) { push_bounded(&g_baseDataLock, g_baseData, event); }
void queue_rasp_text(const std::string& text) { push_bounded(&g_raspDataLock, g_raspData, text); }
size_t base_queue_size() { return locked_size(&g_baseDataLock, g_baseData); }
size_t base_delay_size() { return locked_size(&g_baseDataLock, g_baseDelayData); }
size_t rasp_queue_size() { return locked_size(&g_raspDataLock, g_raspData); }

void EngineTest::SetUp() {
    fake_model::Library::instance().reset();
    recorders::reset();
    FakeClock::install();
}

void EngineTest::TearDown() {
    FakeClock::gate(false);
    FakeClock::releaseThreads();
    BaseEngine::GetInstance()->Uninitialize();
    RaspEngine::GetInstance()->Uninitialize();
    wl_clock_reset();
}

void EngineTest::writeFile(const std::string& relative, const std::string& content) const {
    std::filesystem::create_directories(std::filesystem::path(path(relative)).parent_path());
    std::ofstream(path(relative)) << content;
}
