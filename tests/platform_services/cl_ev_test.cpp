// Per-thread loops: timers under a test clock, closing from callbacks and
// cross-thread posts.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "cl_ev.h"

namespace {

std::atomic<unsigned long long> g_now{0};

// Timer callbacks take no argument, so they count into globals.
std::atomic<int> g_fired[3];
std::thread::id g_firedOn;
template <int N>
void fire() {
    ++g_fired[N];
    g_firedOn = std::this_thread::get_id();
}

class ServicesClEvTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_now = 1000000;
        for (auto& f : g_fired) f = 0;
        cl_ev_set_clock([] { return g_now.load(); });
        cl_ev_current_loop();  // this thread owns a loop from here on
        while (cl_ev_loop_nowait(1) > 0) {
        }
    }
    void TearDown() override {
        for (cl_timer_t timer : m_timers) cl_timerplus_close(timer);
        cl_ev_set_clock(nullptr);
    }
    cl_timer_t start(unsigned int period, cl_timer_fn fn) {
        cl_timer_t timer = cl_timerplus_start(nullptr, 0, period, fn, nullptr);
        m_timers.push_back(timer);
        return timer;
    }

    std::vector<cl_timer_t> m_timers;
};

TEST_F(ServicesClEvTest, TimerFiresOnlyInsidePumpOfItsThread) {
    ASSERT_NE(start(1000, fire<0>), nullptr);
    g_now += 999;
    EXPECT_EQ(cl_ev_loop_nowait(1), 0);
    EXPECT_EQ(g_fired[0], 0) << "one period must pass before the first firing";

    g_now += 1;
    std::thread other([] {
        cl_ev_current_loop();
        cl_ev_loop_nowait(1);
        cl_event_loop_once();
    });
    other.join();
    EXPECT_EQ(g_fired[0], 0) << "another thread's pump fired it";

    EXPECT_EQ(cl_event_loop_once(), 1);
    EXPECT_EQ(g_fired[0], 1);
    EXPECT_EQ(g_firedOn, std::this_thread::get_id());
    EXPECT_EQ(cl_ev_loop_nowait(1), 0) << "a pump without elapsed time fires nothing";
}

TEST_F(ServicesClEvTest, FourHoursOfTestTimeFireEachPeriodOnce) {
    struct Case {
        unsigned int period;
        cl_timer_fn fn;
        int expected;
    };
    const Case cases[] = {{14400000, fire<0>, 1}, {3600000, fire<1>, 4}, {1800000, fire<2>, 8}};
    for (const Case& c : cases) start(c.period, c.fn);
    for (int minute = 0; minute < 240; ++minute) {
        g_now += 60000;
        cl_ev_loop_nowait(1);
        cl_event_loop_once();
    }
    for (int i = 0; i < 3; ++i) EXPECT_EQ(g_fired[i], cases[i].expected) << "period " << cases[i].period;
}

// Closes itself and the other timer due in the same pump.
cl_timer_t g_self;
cl_timer_t g_victim;
void close_self_and_victim() {
    ++g_fired[0];
    EXPECT_EQ(cl_timerplus_close(g_self), 0);
    cl_timerplus_close(g_victim);
}

TEST_F(ServicesClEvTest, TimersClosedInsideACallbackStop) {
    g_self = start(100, close_self_and_victim);
    g_victim = start(100, fire<1>);
    for (int i = 0; i < 5; ++i) {
        g_now += 100;
        cl_ev_loop_nowait(1);
    }
    EXPECT_EQ(g_fired[0], 1);
    EXPECT_EQ(g_fired[1], 0);
    EXPECT_EQ(cl_timerplus_close(g_self), -1) << "a closed handle is no longer running";
}

std::atomic<int> g_elsewhere{0};
void check_thread(void* owner) {
    if (*static_cast<std::thread::id*>(owner) != std::this_thread::get_id()) ++g_elsewhere;
}

TEST_F(ServicesClEvTest, PostsFromManyThreadsAllRunOnTheOwner) {
    constexpr int kTotal = 8 * 500;
    std::thread::id owner = std::this_thread::get_id();
    cl_ev_loop_t loop = cl_ev_current_loop();
    g_elsewhere = 0;
    std::vector<std::thread> posters;
    for (int t = 0; t < 8; ++t) {
        posters.emplace_back([&] {
            for (int i = 0; i < kTotal / 8; ++i) ASSERT_EQ(cl_ev_post(loop, check_thread, &owner), 0);
        });
    }
    int ran = 0;
    while (ran < kTotal) {
        int n = cl_ev_loop_nowait(1);
        ASSERT_GE(n, 0);
        ran += n;
    }
    for (auto& poster : posters) poster.join();
    EXPECT_EQ(cl_ev_loop_nowait(1), 0) << "ran more tasks than were posted";
    EXPECT_EQ(g_elsewhere, 0);
}

}  // namespace
