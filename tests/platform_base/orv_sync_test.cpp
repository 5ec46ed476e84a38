#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "orv_sync.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Event {
    Event(int initial, int manual) { EXPECT_EQ(orv_event_init(&handle, initial, manual), 0); }
    ~Event() { orv_event_destroy(handle); }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    orv_event_t handle = nullptr;
};

TEST(OrvEvent, ManualAndAutoResetSemantics) {
    // S set, R reset, y a wait that finds the event set, n one that times out.
    const struct {
        const char* name;
        int initial;
        int manual;
        const char* steps;
    } cases[] = {
        {"manual, starts unsignalled (as the module makes it)", 0, 1, "nSyyRn"},
        {"manual, starts signalled", 1, 1, "yyRn"},
        {"auto, starts signalled: one wait consumes it", 1, 0, "yn"},
        {"auto, set twice before a wait still wakes once", 0, 0, "nSSyn"},
        {"auto, reset cancels a pending set", 0, 0, "SRn"},
    };
    for (const auto& c : cases) {
        Event ev(c.initial, c.manual);
        for (const char* step = c.steps; *step; ++step) {
            SCOPED_TRACE(std::string(c.name) + ", step " + std::to_string(step - c.steps));
            int rc = *step == 'S'   ? orv_event_set(ev.handle)
                     : *step == 'R' ? orv_event_reset(ev.handle)
                                    : orv_event_timedwait(ev.handle, 10, 0);
            EXPECT_EQ(rc == 0, *step != 'n');
        }
    }
}

// A set from another thread wakes every waiter of a manual event and one of an
// auto event; the others wait out their whole time.
TEST(OrvEvent, SetWakesWaitersTheRestTimeOut) {
    for (int manual = 0; manual <= 1; ++manual) {
        SCOPED_TRACE(manual ? "manual" : "auto");
        Event ev(0, manual);
        std::atomic<int> waiting{0};
        std::atomic<int> woken{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < 3; ++i) {
            waiters.emplace_back([&] {
                waiting++;
                auto start = Clock::now();
                if (orv_event_timedwait(ev.handle, 500, 0) == 0)
                    woken++;
                else
                    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(500));
            });
        }
        while (waiting < 3) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        orv_event_set(ev.handle);
        for (auto& w : waiters) w.join();
        EXPECT_EQ(woken, manual ? 3 : 1);
    }
}

}  // namespace
