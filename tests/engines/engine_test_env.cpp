#include "engine_test_env.h"

#include <stdlib.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <stdexcept>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>

#include "base.h"
#include "dirutils.h"
#include "event_queues.h"
#include "orv_log.h"
#include "rasp.h"
#include "recorders.h"
#include "wl_clock.h"

namespace {

struct ClockState {
    std::mutex mutex;
    std::condition_variable changed;
    time_t now = 1700000000;
    bool gated = false;
    int permits = 0;
    int entered = 0;
    std::map<std::string, int> usleeps;
    std::chrono::microseconds pause{1000};
};

ClockState& clock_state() {
    static ClockState state;
    return state;
}

std::string thread_name() {
    char name[32] = {0};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    return name;
}

void fake_usleep(unsigned int) {
    ClockState& s = clock_state();
    std::chrono::microseconds pause;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        ++s.usleeps[thread_name()];
        pause = s.pause;
    }
    s.changed.notify_all();
    std::this_thread::sleep_for(pause);
}

void fake_sleep(unsigned int) {
    ClockState& s = clock_state();
    std::unique_lock<std::mutex> lock(s.mutex);
    ++s.entered;
    s.changed.notify_all();
    s.changed.wait(lock, [&] { return !s.gated || s.permits > 0; });
    if (s.gated) {
        --s.permits;
    } else {
        lock.unlock();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

time_t fake_time(time_t* out) {
    ClockState& s = clock_state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (out != nullptr) {
        *out = s.now;
    }
    return s.now;
}

}  // namespace

void FakeClock::install() {
    ClockState& s = clock_state();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.gated = false;
        s.permits = 0;
        s.entered = 0;
        s.usleeps.clear();
        s.pause = std::chrono::microseconds(1000);
        s.now = 1700000000;
    }
    g_wl_clock = {fake_usleep, fake_sleep, fake_time};
}

void FakeClock::uninstall() { wl_clock_reset(); }

void FakeClock::setTime(time_t now) {
    std::lock_guard<std::mutex> lock(clock_state().mutex);
    clock_state().now = now;
}

time_t FakeClock::now() {
    std::lock_guard<std::mutex> lock(clock_state().mutex);
    return clock_state().now;
}

void FakeClock::gate(bool on) {
    {
        std::lock_guard<std::mutex> lock(clock_state().mutex);
        clock_state().gated = on;
        clock_state().permits = 0;
    }
    clock_state().changed.notify_all();
}

void FakeClock::allowSleeps(int n) {
    {
        std::lock_guard<std::mutex> lock(clock_state().mutex);
        clock_state().permits += n;
    }
    clock_state().changed.notify_all();
}

int FakeClock::sleepsEntered() {
    std::lock_guard<std::mutex> lock(clock_state().mutex);
    return clock_state().entered;
}

bool FakeClock::waitSleepsEntered(int n, std::chrono::milliseconds timeout) {
    ClockState& s = clock_state();
    std::unique_lock<std::mutex> lock(s.mutex);
    return s.changed.wait_for(lock, timeout, [&] { return s.entered >= n; });
}

int FakeClock::usleepsOf(const std::string& threadName) {
    std::lock_guard<std::mutex> lock(clock_state().mutex);
    return clock_state().usleeps[threadName];
}

bool FakeClock::waitUsleepsOf(const std::string& threadName, int n, std::chrono::milliseconds timeout) {
    ClockState& s = clock_state();
    std::unique_lock<std::mutex> lock(s.mutex);
    return s.changed.wait_for(lock, timeout, [&] { return s.usleeps[threadName] >= n; });
}

void FakeClock::setRealPause(std::chrono::microseconds pause) {
    std::lock_guard<std::mutex> lock(clock_state().mutex);
    clock_state().pause = pause;
}

TempInstall::TempInstall() {
    char pattern[] = "/tmp/wl_engines_XXXXXX";
    const char* made = mkdtemp(pattern);
    if (made == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_root = made;
    std::filesystem::create_directories(m_root + "/lib");
    dirutils_set_install_dir((m_root + "/lib").c_str());
}

TempInstall::~TempInstall() {
    std::error_code ignored;
    std::filesystem::remove_all(m_root, ignored);
}

void TempInstall::writeFile(const std::string& relative, const std::string& content) const {
    std::filesystem::path file(path(relative));
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file);
    out << content;
}

_BASE_EVENTINFO make_base_event(int eventType, unsigned long long tag) {
    _BASE_EVENTINFO event;
    memset(&event, 0, sizeof(event));
    event.event_type = static_cast<uint16_t>(eventType);
    event.event_time = tag;
    return event;
}

void queue_base_event(const _BASE_EVENTINFO& event) {
    orv_mutex_lock(&g_baseDataLock);
    g_baseData.push_back(event);
    orv_mutex_unlock(&g_baseDataLock);
}

void queue_rasp_text(const std::string& text) {
    orv_mutex_lock(&g_raspDataLock);
    g_raspData.push_back(text);
    orv_mutex_unlock(&g_raspDataLock);
}

size_t base_queue_size() {
    orv_mutex_lock(&g_baseDataLock);
    size_t n = g_baseData.size();
    orv_mutex_unlock(&g_baseDataLock);
    return n;
}

size_t base_delay_size() {
    orv_mutex_lock(&g_baseDataLock);
    size_t n = g_baseDelayData.size();
    orv_mutex_unlock(&g_baseDataLock);
    return n;
}

size_t rasp_queue_size() {
    orv_mutex_lock(&g_raspDataLock);
    size_t n = g_raspData.size();
    orv_mutex_unlock(&g_raspDataLock);
    return n;
}

void EngineTest::SetUp() {
    fake_model::Library::instance().reset();
    recorders::reset();
    FakeClock::install();
    m_install = std::make_unique<TempInstall>();
}

void EngineTest::TearDown() {
    FakeClock::gate(false);
    BaseEngine::GetInstance()->Uninitialize();
    RaspEngine::GetInstance()->Uninitialize();
    FakeClock::uninstall();
    m_install.reset();
}

void EngineTest::startBase() { ASSERT_TRUE(BaseEngine::GetInstance()->Initialize()); }

void EngineTest::startRasp() { ASSERT_TRUE(RaspEngine::GetInstance()->Initialize()); }
