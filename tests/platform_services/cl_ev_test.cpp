// Per-thread loops: timers under a test clock, closing from callbacks,
// cross-thread posts and the lifetime of a thread's loop.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "cl_ev.h"
#include "log_capture.h"

namespace {

std::atomic<unsigned long long> g_now{1000000};
unsigned long long test_clock() { return g_now.load(); }

class ServicesClEvTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_now = 1000000;
        cl_ev_set_clock(test_clock);
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
    static void advance(unsigned long long ms) { g_now += ms; }

    std::vector<cl_timer_t> m_timers;
};

// Counters for plain-function callbacks (the timer callback takes no argument).
std::atomic<int> g_fired[4];
std::thread::id g_firedOn;
void fire0() {
    ++g_fired[0];
    g_firedOn = std::this_thread::get_id();
}
void fire1() { ++g_fired[1]; }
void fire2() { ++g_fired[2]; }
void reset_fired() {
    for (auto& f : g_fired) f = 0;
}

TEST_F(ServicesClEvTest, TimerFiresOnlyInsidePumpOfItsThread) {
    reset_fired();
    ASSERT_NE(start(1000, fire0), nullptr);
    advance(999);
    EXPECT_EQ(cl_ev_loop_nowait(1), 0);
    EXPECT_EQ(g_fired[0], 0) << "one period must pass before the first firing";

    advance(1);
    // Time passes and another thread pumps its own loop: nothing may fire.
    std::thread other([] {
        cl_ev_current_loop();
        cl_ev_loop_nowait(1);
        cl_event_loop_once();
    });
    other.join();
    usleep(20000);
    EXPECT_EQ(g_fired[0], 0);

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
    const Case cases[] = {{14400000, fire0, 1}, {3600000, fire1, 4}, {1800000, fire2, 8}};
    reset_fired();
    for (const Case& c : cases) start(c.period, c.fn);
    for (int minute = 0; minute < 240; ++minute) {
        advance(60000);
        cl_ev_loop_nowait(1);
        cl_event_loop_once();
    }
    for (int i = 0; i < 3; ++i) EXPECT_EQ(g_fired[i], cases[i].expected) << "period " << cases[i].period;
}

TEST_F(ServicesClEvTest, LongJumpFiresOnceAndReschedulesFromNow) {
    reset_fired();
    start(1800000, fire0);
    advance(14400000);
    EXPECT_EQ(cl_ev_loop_nowait(1), 1);
    EXPECT_EQ(cl_ev_loop_nowait(1), 0) << "no catch-up burst";
    advance(1799999);
    cl_ev_loop_nowait(1);
    EXPECT_EQ(g_fired[0], 1);
    advance(1);
    cl_ev_loop_nowait(1);
    EXPECT_EQ(g_fired[0], 2);
}

cl_timer_t g_self;
void close_self() {
    ++g_fired[0];
    EXPECT_EQ(cl_timerplus_close(g_self), 0);
}

TEST_F(ServicesClEvTest, TimerClosedInsideItsOwnCallbackStops) {
    reset_fired();
    g_self = cl_timerplus_start(nullptr, 0, 100, close_self, nullptr);
    ASSERT_NE(g_self, nullptr);
    for (int i = 0; i < 5; ++i) {
        advance(100);
        cl_ev_loop_nowait(1);
    }
    EXPECT_EQ(g_fired[0], 1);
    EXPECT_EQ(cl_timerplus_close(g_self), -1) << "a closed handle is no longer running";
}

cl_timer_t g_victim;
void close_victim() {
    ++g_fired[0];
    cl_timerplus_close(g_victim);
}

TEST_F(ServicesClEvTest, TimerClosedByAnotherCallbackOfTheSamePumpDoesNotRun) {
    reset_fired();
    start(100, close_victim);
    g_victim = cl_timerplus_start(nullptr, 0, 100, fire1, nullptr);
    advance(100);
    cl_ev_loop_nowait(1);
    advance(100);
    cl_ev_loop_nowait(1);
    EXPECT_EQ(g_fired[0], 2);
    EXPECT_EQ(g_fired[1], 0);
}

TEST_F(ServicesClEvTest, BadTimerArgumentsAreRefused) {
    EXPECT_EQ(cl_timerplus_start(nullptr, 0, 0, fire0, nullptr), nullptr);
    EXPECT_EQ(cl_timerplus_start(nullptr, 0, 100, nullptr, nullptr), nullptr);
    EXPECT_EQ(cl_timerplus_close(nullptr), -1);
}

struct PostRecord {
    std::mutex lock;
    std::vector<std::thread::id> ranOn;
};

void record_post(void* arg) {
    auto* record = static_cast<PostRecord*>(arg);
    std::lock_guard<std::mutex> lock(record->lock);
    record->ranOn.push_back(std::this_thread::get_id());
}

TEST_F(ServicesClEvTest, PostsFromManyThreadsAllRunOnTheOwner) {
    constexpr int kThreads = 8;
    constexpr int kPosts = 500;
    PostRecord record;
    cl_ev_loop_t loop = cl_ev_current_loop();
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
        posters.emplace_back([&] {
            for (int i = 0; i < kPosts; ++i) ASSERT_EQ(cl_ev_post(loop, record_post, &record), 0);
        });
    }
    int ran = 0;
    while (ran < kThreads * kPosts) {
        int n = cl_ev_loop_nowait(1);
        ASSERT_GE(n, 0);
        ran += n;
    }
    for (auto& poster : posters) poster.join();
    ran += cl_ev_loop_nowait(1);
    EXPECT_EQ(ran, kThreads * kPosts);
    ASSERT_EQ(record.ranOn.size(), static_cast<size_t>(kThreads * kPosts));
    for (auto id : record.ranOn) ASSERT_EQ(id, std::this_thread::get_id());
}

// Posts itself again until it ran three times.
void repost(void* arg) {
    int* runs = static_cast<int*>(arg);
    if (++*runs < 3) cl_ev_post(cl_ev_current_loop(), repost, arg);
}

TEST_F(ServicesClEvTest, TaskPostedFromATaskWaitsForTheNextPump) {
    int runs = 0;
    cl_ev_post(cl_ev_current_loop(), repost, &runs);
    EXPECT_EQ(cl_ev_loop_nowait(1), 1);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(cl_event_loop_once(), 1);
    EXPECT_EQ(cl_ev_loop_nowait(1), 1);
    EXPECT_EQ(cl_ev_loop_nowait(1), 0);
    EXPECT_EQ(runs, 3);
}

TEST_F(ServicesClEvTest, ThreadWithoutLoopCannotPump) {
    int result = 0;
    std::thread([&] { result = cl_ev_loop_nowait(1) + cl_event_loop_once(); }).join();
    EXPECT_EQ(result, -2);
}

struct IsolatedProbe {
    std::atomic<int> pumpAtStart{-5};
    std::atomic<cl_ev_loop_t> loop{nullptr};
    std::atomic<bool> release{false};
    std::atomic<bool> exited{false};
};

void* isolated_main(void* arg) {
    auto* probe = static_cast<IsolatedProbe*>(arg);
    probe->pumpAtStart = cl_ev_loop_nowait(1);
    probe->loop = cl_ev_current_loop();
    while (!probe->release) usleep(1000);
    probe->exited = true;
    return nullptr;
}

std::atomic<int> g_discarded{0};
std::atomic<int> g_ran{0};
void count_run(void*) { ++g_ran; }
void count_discard(void*) { ++g_discarded; }

TEST_F(ServicesClEvTest, IsolatedThreadOwnsALoopThatDiesWithIt) {
    IsolatedProbe probe;
    unsigned long tid = 0;
    ASSERT_EQ(cl_ev_create_isolated_thread(&tid, 0, isolated_main, &probe), 0);
    ASSERT_TRUE(waitUntil([&] { return probe.loop.load() != nullptr; }));
    EXPECT_EQ(probe.pumpAtStart, 0) << "the loop must exist before the thread function runs";
    EXPECT_NE(tid, 0ul);

    g_discarded = 0;
    g_ran = 0;
    cl_ev_loop_t loop = probe.loop;
    ASSERT_EQ(cl_ev_post_owned(loop, count_run, count_discard, nullptr), 0);
    probe.release = true;
    ASSERT_TRUE(waitUntil([&] { return g_discarded.load() == 1; })) << "a task left at thread exit is discarded";
    EXPECT_EQ(g_ran, 0);
    EXPECT_EQ(cl_ev_post_owned(loop, count_run, count_discard, nullptr), -1);
    EXPECT_EQ(g_discarded, 2);
    EXPECT_EQ(cl_ev_post(loop, count_run, nullptr), -1);
}

TEST_F(ServicesClEvTest, TimerOfAnIsolatedThreadFiresThere) {
    static std::atomic<int> fired{0};
    static std::atomic<bool> wrongThread{false};
    static std::atomic<bool> stop{false};
    static std::thread::id owner;
    fired = 0;
    stop = false;
    struct Body {
        static void tick() {
            if (std::this_thread::get_id() != owner) wrongThread = true;
            ++fired;
        }
        static void* run(void*) {
            owner = std::this_thread::get_id();
            cl_timer_t timer = cl_timerplus_start(nullptr, 0, 1000, tick, nullptr);
            while (!stop) {
                cl_ev_loop_nowait(1);
                cl_event_loop_once();
                usleep(500);
            }
            cl_timerplus_close(timer);
            stop = false;
            return nullptr;
        }
    };
    ASSERT_EQ(cl_ev_create_isolated_thread(nullptr, 0, Body::run, nullptr), 0);
    for (int i = 1; i <= 3; ++i) {
        usleep(20000);  // the timer is started by now
        advance(1000);
        ASSERT_TRUE(waitUntil([&] { return fired.load() == i; })) << "firing " << i;
    }
    stop = true;
    ASSERT_TRUE(waitUntil([&] { return !stop.load(); }));
    EXPECT_FALSE(wrongThread);
    EXPECT_EQ(cl_ev_create_isolated_thread(nullptr, 0, nullptr, nullptr), -1);
}

}  // namespace
