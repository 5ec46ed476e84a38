// What the engine tests share: a controllable clock behind g_wl_clock, a
// temporary install root, the queues and the engines' stop at the end.
#ifndef WL_ENGINE_TEST_ENV_H
#define WL_ENGINE_TEST_ENV_H

#include <chrono>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "event_info.h"
#include "event_records.h"
#include "orv_sync.h"
#include "temp_dir.h"
#include "fake_model_library.h"

// Replaces the module's sleeps and wall clock. Worker pauses become a short
// real sleep counted per thread name; the timing thread's sleep(3) can be
// gated so that a test lets exactly n passes run; time() returns a set value.
class FakeClock {
public:
    static void install();
    static void setTime(time_t now);
    static time_t now();
    // While gated, each sleep() waits for a permit; ungated, it returns at once.
    static void gate(bool on);
    static void allowSleeps(int n);
    static int sleepsEntered();
    static int usleepsOf(const std::string& threadName);
    // What each usleep really waits (default 1 ms).
    static void setRealPause(std::chrono::microseconds pause);
    // A held thread waits in each usleep for a pass granted by passThread.
    static void holdThread(const std::string& threadName, bool held);
    static void passThread(const std::string& threadName, int passes);
    static void releaseThreads();
};

// Whether another thread than the caller could take the orv mutex now.
bool held_elsewhere(orv_mutex_t mutex);

bool wait_calls(fake_model::Engine engine, const std::string& op, int n);
bool initialize(fake_model::Engine engine);

// Both drop the item when the queue is at its bound, as the sources do.
void queue_base_event(const _BASE_EVENTINFO& event);
void queue_rasp_text(const std::string& text);
size_t base_queue_size();
size_t base_delay_size();
size_t rasp_queue_size();

// Clean fake library and recorders, fake clock, a temporary root whose lib/
// is the install directory; stops both engines afterwards.
class EngineTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    std::string path(const std::string& relative) const { return m_dir / relative; }
    void writeFile(const std::string& relative, const std::string& content = "") const;

    TempInstallRoot m_dir;
};

#endif
