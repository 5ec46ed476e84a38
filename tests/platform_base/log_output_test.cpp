#include <gtest/gtest.h>

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

// The orv front end logs one level below its own number; both obey the same threshold.
TEST(LogThreshold, PassesExactlyTheLevelsAtOrBelowIt) {
    LogCapture capture;
    for (int threshold = 0; threshold <= 4; ++threshold) {
        error_output_set_level(threshold);
        for (int level = 1; level <= 4; ++level) {
            SCOPED_TRACE("threshold " + std::to_string(threshold) + " level " + std::to_string(level));
            capture.clear();
            EXPECT_EQ(error_output_check(level) != 0, level <= threshold);
            error_output(level, "thr", 1, "plain");
            orv_log_output(level - 1, "orv");
            EXPECT_EQ(capture.count("plain", level) + capture.count("orv", level), level <= threshold ? 2 : 0);
        }
    }
}

TEST(LogFileFormat, ErrorOutputLineHasTimeLetterSourceAndLine) {
    LogCapture capture;
    TempDir tmp;
    std::string dir = tmp / "fmt_check";
    ASSERT_EQ(autolog_init(dir.c_str(), 5), 0);
    error_output(LOG_LVL_ERROR, "config", 10, "first %s", "e");
    error_output(LOG_LVL_WARN, "config", 11, "second");
    error_output(LOG_LVL_INFO, "config", 12, "third\n");  // a newline of its own is not doubled
    error_output(LOG_LVL_DETAIL, "config", 13, "fourth");
    orv_log_output(ORV_LOG_INFO, "[PID:%-5ld]\t[INFO]\t%-10s [%s(%d)] fifth", 9L, "[TUL]", "whitelist_event", 3);
    autolog_deinit();

    const std::string stamp = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} )";
    std::regex expected(stamp + R"(E config\(10\): first e\n)" + stamp + R"(W config\(11\): second\n)" + stamp +
                        R"(I config\(12\): third\n)" + stamp + R"(D config\(13\): fourth\n)" +
                        R"(\[PID:9    \]\t\[INFO\]\t\[TUL\]      \[whitelist_event\(3\)\] fifth\n)");
    std::string text = readFile(dir + "/fmt_check.log");
    EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

TEST(LogSink, LongMessagesArriveWhole) {
    LogCapture capture;
    std::string big(5000, 'x');  // past any fixed formatting buffer
    error_output(LOG_LVL_INFO, "big", 1, "<%s>", big.c_str());
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].text, "<" + big + ">");
}

struct SwapSink {
    std::atomic<int> calls{0};
    std::atomic<bool> retired{false};
};
std::atomic<int> g_lateCalls{0};

void swapSink(int, const char*, const char*, void* user) {
    auto* sink = static_cast<SwapSink*>(user);
    std::this_thread::sleep_for(std::chrono::microseconds(100));  // keeps calls in flight across a swap
    if (sink->retired) g_lateCalls++;
    sink->calls++;
}

// Once the swap returns the owner may free the old sink, so it must never run again.
TEST(LogConcurrency, ASwappedOutSinkIsNeverCalledAgain) {
    LogCapture capture;
    std::atomic<bool> stop{false};
    std::atomic<int> logged{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&] {
            for (; !stop; logged++) error_output(LOG_LVL_DETAIL, "swap", 1, "line");
        });
    }
    SwapSink sinks[2];
    log_set_sink(swapSink, &sinks[0]);
    for (int round = 0; round < 40; ++round) {
        SwapSink& current = sinks[round % 2];
        SwapSink& next = sinks[(round + 1) % 2];
        int before = current.calls;
        EXPECT_TRUE(waitUntil([&] { return current.calls > before + 3; }));
        next.retired = false;
        log_set_sink(swapSink, &next);
        current.retired = true;
    }
    log_set_sink(nullptr, nullptr);
    sinks[0].retired = true;
    int loggedAtEnd = logged;
    EXPECT_TRUE(waitUntil([&] { return logged > loggedAtEnd + 100; }));
    stop = true;
    for (auto& th : threads) th.join();
    EXPECT_EQ(g_lateCalls, 0);
}

}  // namespace
