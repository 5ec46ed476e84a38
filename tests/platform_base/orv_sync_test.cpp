#include <errno.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "orv_sync.h"

namespace {

using Clock = std::chrono::steady_clock;

// Destroys the event however the test ends.
class Event {
public:
    Event(int initial, int manual) { EXPECT_EQ(orv_event_init(&m_event, initial, manual), 0); }
    ~Event() { orv_event_destroy(m_event); }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    orv_event_t get() const { return m_event; }

private:
    orv_event_t m_event = nullptr;
};

enum Step { kWait, kSet, kReset };
struct EventCase {
    const char* name;
    int initial;
    int manual;
    std::vector<std::pair<Step, bool>> steps;  // for kWait: whether it must find the event set
};

TEST(OrvEvent, ManualAndAutoResetSemantics) {
    const EventCase cases[] = {
        {"manual, starts unsignalled (as the module makes it)", 0, 1,
         {{kWait, false}, {kSet, true}, {kWait, true}, {kWait, true}, {kReset, true}, {kWait, false}}},
        {"manual, starts signalled", 1, 1, {{kWait, true}, {kWait, true}, {kReset, true}, {kWait, false}}},
        {"auto, starts signalled: one wait consumes it", 1, 0, {{kWait, true}, {kWait, false}}},
        {"auto, set twice before a wait still wakes once", 0, 0,
         {{kWait, false}, {kSet, true}, {kSet, true}, {kWait, true}, {kWait, false}}},
        {"auto, reset cancels a pending set", 0, 0, {{kSet, true}, {kReset, true}, {kWait, false}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Event ev(c.initial, c.manual);
        int stepNo = 0;
        for (const auto& step : c.steps) {
            ++stepNo;
            switch (step.first) {
                case kSet:
                    EXPECT_EQ(orv_event_set(ev.get()), 0);
                    break;
                case kReset:
                    EXPECT_EQ(orv_event_reset(ev.get()), 0);
                    break;
                case kWait:
                    EXPECT_EQ(orv_event_timedwait(ev.get(), 10, 0) == 0, step.second) << "step " << stepNo;
                    break;
            }
        }
    }
}

TEST(OrvEvent, TimedWaitRunsItsTimeOutBeforeGivingUp) {
    Event ev(0, 1);
    auto start = Clock::now();
    EXPECT_NE(orv_event_timedwait(ev.get(), 80, 0), 0);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(80));
}

TEST(OrvEvent, SetFromAnotherThreadWakesTheWaiter) {
    Event ev(0, 1);
    std::thread setter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        orv_event_set(ev.get());
    });
    // Long enough that only a missed wake-up could make it time out.
    EXPECT_EQ(orv_event_timedwait(ev.get(), 10000, 0), 0);
    setter.join();
}

TEST(OrvEvent, ManualSetReleasesEveryWaiterAutoSetReleasesOne) {
    for (int manual = 0; manual <= 1; ++manual) {
        SCOPED_TRACE(manual ? "manual" : "auto");
        Event ev(0, manual);
        std::atomic<int> woken{0};
        std::atomic<int> waiting{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < 3; ++i) {
            waiters.emplace_back([&] {
                waiting++;
                if (orv_event_timedwait(ev.get(), 600, 0) == 0) woken++;
            });
        }
        while (waiting.load() < 3) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        orv_event_set(ev.get());
        for (auto& w : waiters) w.join();
        EXPECT_EQ(woken.load(), manual ? 3 : 1);
    }
}

TEST(OrvMutex, GuardsACounterAndDestroyClearsTheHandle) {
    orv_mutex_t mutex = nullptr;
    ASSERT_EQ(orv_mutex_init(&mutex), 0);
    ASSERT_NE(mutex, nullptr);
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                orv_mutex_lock(&mutex);
                ++counter;
                orv_mutex_unlock(&mutex);
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(counter, 80000);
    EXPECT_EQ(orv_mutex_destroy(&mutex), 0);
    EXPECT_EQ(mutex, nullptr);
    EXPECT_EQ(orv_mutex_destroy(&mutex), EINVAL);
    EXPECT_EQ(orv_mutex_lock(&mutex), EINVAL);
}

TEST(OrvCond, ConsumerSeesEveryItemOfTheProducer) {
    orv_mutex_t mutex = nullptr;
    orv_cond_t cond = nullptr;
    ASSERT_EQ(orv_mutex_init(&mutex), 0);
    ASSERT_EQ(orv_cond_init(&cond), 0);
    int produced = 0;
    int consumed = 0;
    long sum = 0;
    std::thread consumer([&] {
        orv_mutex_lock(&mutex);
        while (consumed < 1000) {
            while (consumed == produced) orv_cond_wait(&cond, &mutex);
            sum += ++consumed;
        }
        orv_mutex_unlock(&mutex);
    });
    for (int i = 0; i < 1000; ++i) {
        orv_mutex_lock(&mutex);
        ++produced;
        if (i % 2) {
            orv_cond_broadcast(&cond);
        } else {
            orv_cond_signal(&cond);
        }
        orv_mutex_unlock(&mutex);
    }
    consumer.join();
    EXPECT_EQ(sum, 1000L * 1001 / 2);
    EXPECT_EQ(orv_cond_destroy(&cond), 0);
    EXPECT_EQ(cond, nullptr);
    EXPECT_EQ(orv_mutex_destroy(&mutex), 0);
}

void* recordArgument(void* arg) {
    static_cast<std::atomic<int>*>(arg)->fetch_add(1);
    return nullptr;
}

TEST(OrvThread, StartsWithAnyStackSizeAndJoins) {
    const size_t sizes[] = {0, 1, 64 * 1024, 1024 * 1024};
    for (size_t size : sizes) {
        std::atomic<int> ran{0};
        orv_thread_t thread = 0;
        ASSERT_EQ(orv_thread_start(&thread, recordArgument, &ran, size), 0) << size;
        EXPECT_EQ(orv_thread_join(thread), 0);
        EXPECT_EQ(ran.load(), 1) << size;
    }
    orv_thread_t thread = 0;
    EXPECT_EQ(orv_thread_start(&thread, nullptr, nullptr, 0), EINVAL);
}

TEST(OrvAtomic, AddAndSubReturnTheNewValueUnderContention) {
    volatile int value = 10;
    EXPECT_EQ(orv_atomic32_add_and_fetch(&value, 5), 15);
    EXPECT_EQ(orv_atomic32_sub_and_fetch(&value, 20), -5);
    value = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50000; ++i) {
                if (t % 2) {
                    orv_atomic32_add_and_fetch(&value, 3);
                } else {
                    orv_atomic32_sub_and_fetch(&value, 1);
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(value, 2 * 50000 * 3 - 2 * 50000);
}

}  // namespace
