#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "orv_log.h"
#include "temp_dir.h"

namespace {

// Puts the threshold back however the test ends.
class LevelGuard {
public:
    LevelGuard() : m_saved(error_output_get_level()) {}
    ~LevelGuard() { error_output_set_level(m_saved); }

private:
    int m_saved;
};

TEST(LogThreshold, PassesExactlyTheLevelsAtOrBelowIt) {
    LogCapture capture;
    for (int threshold = 0; threshold <= 4; ++threshold) {
        error_output_set_level(threshold);
        for (int level = 1; level <= 4; ++level) {
            SCOPED_TRACE("threshold " + std::to_string(threshold) + " level " + std::to_string(level));
            capture.clear();
            EXPECT_EQ(error_output_check(level) != 0, level <= threshold);
            error_output(level, "thr", 1, "message %d", level);
            EXPECT_EQ(capture.count("message"), level <= threshold ? 1 : 0);
        }
    }
}

TEST(LogThreshold, SetLevelClampsToTheValidRange) {
    LevelGuard guard;
    const struct {
        int given;
        int kept;
    } cases[] = {{-3, 0}, {0, 0}, {2, 2}, {4, 4}, {9, 4}};
    for (const auto& c : cases) {
        error_output_set_level(c.given);
        EXPECT_EQ(error_output_get_level(), c.kept) << "given " << c.given;
    }
}

// The initial threshold is read once per process, so each case runs in a
// freshly started copy of this test program.
TEST(LogThresholdDeathTest, InitialValueComesFromTheEnvironment) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const struct {
        const char* env;  // null: unset
        int expected;
    } cases[] = {{nullptr, 3}, {"0", 0}, {"1", 1}, {"4", 4}, {"", 3}, {"7", 3}, {"-1", 3}, {"2x", 3}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.env ? c.env : "(unset)");
        if (c.env) {
            setenv("WL_LOG_LEVEL", c.env, 1);
        } else {
            unsetenv("WL_LOG_LEVEL");
        }
        EXPECT_EXIT(exit(error_output_get_level()), testing::ExitedWithCode(c.expected), "");
    }
    unsetenv("WL_LOG_LEVEL");
}

TEST(LogSink, ErrorOutputHandsOverLevelSourceAndText) {
    LogCapture capture;
    error_output(LOG_LVL_WARN, "whitelist_api", 42, "model %s has %d ports", "m1", 3);
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 2);
    EXPECT_EQ(lines[0].source, "whitelist_api");
    EXPECT_EQ(lines[0].text, "model m1 has 3 ports");
}

TEST(LogSink, OrvLevelsMapOneAboveAndCarryTheFormattedPrefix) {
    LogCapture capture;
    const struct {
        int orvLevel;
        const char* word;
        int sinkLevel;
    } cases[] = {{ORV_LOG_ERROR, "ERROR", 1}, {ORV_LOG_WARN, "WARN", 2}, {ORV_LOG_INFO, "INFO", 3},
                 {ORV_LOG_DEBUG, "DEBUG", 4}};
    for (const auto& c : cases) {
        capture.clear();
        std::string fmt = std::string("[PID:%-5ld]\t[") + c.word + "]\t%-10s [%s(%d)] publish %s";
        orv_log_output(c.orvLevel, fmt.c_str(), 42L, "[TUL]", "whitelist_mb", 7, "ok");
        auto lines = capture.lines();
        ASSERT_EQ(lines.size(), 1u) << c.word;
        EXPECT_EQ(lines[0].level, c.sinkLevel);
        EXPECT_EQ(lines[0].source, "");
        EXPECT_EQ(lines[0].text, std::string("[PID:42   ]\t[") + c.word + "]\t[TUL]      [whitelist_mb(7)] publish ok");
    }
}

TEST(LogSink, OrvOutputObeysTheThreshold) {
    LogCapture capture;
    error_output_set_level(2);
    orv_log_output(ORV_LOG_WARN, "warn %d", 1);
    orv_log_output(ORV_LOG_INFO, "info %d", 2);
    EXPECT_EQ(capture.count("warn 1"), 1);
    EXPECT_EQ(capture.count("info 2"), 0);
}

TEST(LogSink, LongMessagesArriveWhole) {
    LogCapture capture;
    std::string big(5000, 'x');
    error_output(LOG_LVL_INFO, "big", 1, "<%s>", big.c_str());
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "<" + big + ">");
}

TEST(LogFileFormat, ErrorOutputLineHasTimeLetterSourceAndLine) {
    LogCapture capture;  // threshold 4
    TempDir tmp;
    std::string dir = tmp / "fmt_check";
    ASSERT_EQ(autolog_init(dir.c_str(), 5), 0);
    error_output(LOG_LVL_ERROR, "config", 10, "first %s", "e");
    error_output(LOG_LVL_WARN, "config", 11, "second");
    error_output(LOG_LVL_INFO, "config", 12, "third\n");  // a newline of its own is not doubled
    error_output(LOG_LVL_DETAIL, "config", 13, "fourth");
    orv_log_output(ORV_LOG_INFO, "[PID:%-5ld]\t[INFO]\t%-10s [%s(%d)] fifth", 9L, "[TUL]", "whitelist_event", 3);
    autolog_deinit();

    std::string text = readFile(dir + "/fmt_check.log");
    const std::string stamp = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} )";
    std::regex expected(stamp + R"(E config\(10\): first e\n)" + stamp + R"(W config\(11\): second\n)" + stamp +
                        R"(I config\(12\): third\n)" + stamp + R"(D config\(13\): fourth\n)" +
                        R"(\[PID:9    \]\t\[INFO\]\t\[TUL\]      \[whitelist_event\(3\)\] fifth\n)");
    // Only this thread logs here, so the file holds exactly these lines.
    EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

// Two sinks that know whose user pointer they must be given.
struct SinkState {
    int id;
    std::atomic<int> calls{0};
    std::atomic<int> mismatches{0};
};

// A call is counted as it ends, after a pause that keeps calls in flight
// while the sink is swapped.
void countSlowly(SinkState* state, int expectedId, bool slow) {
    if (state->id != expectedId) state->mismatches++;
    if (slow) std::this_thread::sleep_for(std::chrono::microseconds(100));
    state->calls++;
}

void sinkOne(int, const char*, const char* text, void* user) {
    countSlowly(static_cast<SinkState*>(user), 1, text[0] == 's');
}

void sinkTwo(int, const char*, const char* text, void* user) {
    countSlowly(static_cast<SinkState*>(user), 2, text[0] == 's');
}

TEST(LogConcurrency, ManyThreadsLoggingLoseNothing) {
    LevelGuard guard;
    error_output_set_level(4);
    SinkState state;
    state.id = 1;
    log_set_sink(sinkOne, &state);
    constexpr int kThreads = 8;
    constexpr int kPerThread = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kPerThread; ++i) {
                if (i % 2) {
                    error_output(LOG_LVL_INFO, "conc", t, "line %d", i);
                } else {
                    orv_log_output(ORV_LOG_INFO, "orv line %d", i);
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    log_set_sink(nullptr, nullptr);
    EXPECT_EQ(state.calls.load(), kThreads * kPerThread);
}

TEST(LogConcurrency, SwappingTheSinkWhileOthersLogIsSafe) {
    LevelGuard guard;
    error_output_set_level(4);
    SinkState one;
    one.id = 1;
    SinkState two;
    two.id = 2;
    std::atomic<bool> stop{false};
    std::atomic<int> logged{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&] {
            while (!stop.load()) {
                error_output(LOG_LVL_DETAIL, "swap", 1, "slow");
                logged++;
            }
        });
    }
    for (int round = 0; round < 600; ++round) {
        log_set_sink(round % 3 == 0 ? sinkOne : sinkTwo, round % 3 == 0 ? static_cast<void*>(&one) : &two);
        if (round % 3 == 2) log_set_sink(nullptr, nullptr);
    }
    // Once the swap returns, the old sink must never be called again: its
    // owner is free to destroy it. Calls are in flight at this moment.
    log_set_sink(sinkOne, &one);
    int oneBefore = one.calls.load();
    ASSERT_TRUE(waitUntil([&] { return one.calls.load() > oneBefore + 20; }));
    log_set_sink(nullptr, nullptr);
    int oneAfter = one.calls.load();
    int twoAfter = two.calls.load();
    int loggedAtSwap = logged.load();
    ASSERT_TRUE(waitUntil([&] { return logged.load() > loggedAtSwap + 600; }));
    stop = true;
    for (auto& th : threads) th.join();

    EXPECT_EQ(one.mismatches.load(), 0);
    EXPECT_EQ(two.mismatches.load(), 0);
    EXPECT_EQ(one.calls.load(), oneAfter);
    EXPECT_EQ(two.calls.load(), twoAfter);
    EXPECT_LE(oneAfter + twoAfter, logged.load());
}

}  // namespace
