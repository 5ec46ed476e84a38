// What the engine tests share: a controllable clock behind g_wl_clock, a
// temporary install root, event builders and the engines' stop at the end.
#ifndef WL_ENGINE_TEST_ENV_H
#define WL_ENGINE_TEST_ENV_H

#include <chrono>
#include <ctime>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "event_info.h"
#include "fake_model_library.h"

// Replaces the module's sleeps and wall clock. Worker pauses become a short
// real sleep counted per thread name; the timing thread's sleep(3) can be
// gated so that a test lets exactly n passes run; time() returns a set value.
class FakeClock {
public:
    static void install();
    static void uninstall();

    static void setTime(time_t now);
    static time_t now();

    // While gated, each sleep() waits for a permit; ungated, it returns at once.
    static void gate(bool on);
    static void allowSleeps(int n);
    static int sleepsEntered();
    static bool waitSleepsEntered(int n, std::chrono::milliseconds timeout = std::chrono::seconds(10));

    static int usleepsOf(const std::string& threadName);
    static bool waitUsleepsOf(const std::string& threadName, int n,
                              std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // What each usleep really waits (default 1 ms).
    static void setRealPause(std::chrono::microseconds pause);
};

// A fresh install root in a temporary directory; "@" is its lib/ folder.
class TempInstall {
public:
    TempInstall();
    ~TempInstall();
    TempInstall(const TempInstall&) = delete;
    TempInstall& operator=(const TempInstall&) = delete;

    const std::string& root() const { return m_root; }
    std::string path(const std::string& relative) const { return m_root + "/" + relative; }
    void writeFile(const std::string& relative, const std::string& content) const;

private:
    std::string m_root;
};

// A cleared host record with the given type and a tag in event_time.
_BASE_EVENTINFO make_base_event(int eventType, unsigned long long tag);
void queue_base_event(const _BASE_EVENTINFO& event);
void queue_rasp_text(const std::string& text);
size_t base_queue_size();
size_t base_delay_size();
size_t rasp_queue_size();

// Base fixture: clean fake library and recorders, fake clock, temp root;
// stops both engines afterwards.
class EngineTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    void startBase();
    void startRasp();

    std::unique_ptr<TempInstall> m_install;
};

#endif
