#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "orv_log.h"
#include "temp_dir.h"

namespace {

bool fileContains(const std::string& path, const std::string& fragment) {
    return readFile(path).find(fragment) != std::string::npos;
}

// Runs fn on a new thread and waits for it: each thread has its own binding.
template <typename Fn>
void onThread(Fn fn) {
    std::thread(fn).join();
}

TEST(Autolog, FileIsNamedAfterTheLastComponentAndParentsAreCreated) {
    LogCapture capture;
    TempDir tmp;
    const struct {
        std::string dir;
        std::string file;
    } cases[] = {
        {tmp / "white_list", tmp / "white_list/white_list.log"},
        {tmp / "base_engine/", tmp / "base_engine/base_engine.log"},
        {tmp / "var/log/agent/rasp_engine", tmp / "var/log/agent/rasp_engine/rasp_engine.log"},
    };
    for (const auto& c : cases) {
        onThread([&] {
            ASSERT_EQ(autolog_init(c.dir.c_str(), 5), 0) << c.dir;
            error_output(LOG_LVL_INFO, "t", 1, "into %s", c.dir.c_str());
            autolog_deinit();
        });
        EXPECT_TRUE(fileContains(c.file, "into " + c.dir)) << c.file;
    }
}

TEST(Autolog, ABoundThreadKeepsItsFirstFileUntilDeinit) {
    LogCapture capture;
    TempDir tmp;
    std::string work = tmp / "white_list";
    std::string engine = tmp / "base_engine";
    onThread([&] {
        ASSERT_EQ(autolog_init(work.c_str(), 5), 0);
        ASSERT_EQ(autolog_init(engine.c_str(), 5), 0);
        error_output(LOG_LVL_INFO, "t", 1, "work thread line");
        autolog_deinit();
        ASSERT_EQ(autolog_init(engine.c_str(), 5), 0);
        error_output(LOG_LVL_INFO, "t", 2, "rebound line");
        autolog_deinit();
    });
    EXPECT_TRUE(fileContains(work + "/white_list.log", "work thread line"));
    EXPECT_FALSE(fileContains(work + "/white_list.log", "rebound line"));
    EXPECT_TRUE(fileContains(engine + "/base_engine.log", "rebound line"));
}

TEST(Autolog, RefusesWhatCannotHoldADirectory) {
    TempDir tmp;
    writeFile(tmp / "plain", "x");
    EXPECT_NE(autolog_init(nullptr, 5), 0);
    EXPECT_NE(autolog_init("", 5), 0);
    EXPECT_NE(autolog_init((tmp / "plain").c_str(), 5), 0);
    EXPECT_NE(autolog_init((tmp / "plain/sub").c_str(), 5), 0);
}

TEST(Autolog, EachThreadWritesToItsOwnFile) {
    LogCapture capture;
    TempDir tmp;
    std::string work = tmp / "white_list";
    std::string engine = tmp / "base_engine";
    std::thread a([&] {
        ASSERT_EQ(autolog_init(work.c_str(), 5), 0);
        for (int i = 0; i < 50; ++i) error_output(LOG_LVL_INFO, "whitelist", i, "work line %d", i);
        autolog_deinit();
    });
    std::thread b([&] {
        ASSERT_EQ(autolog_init(engine.c_str(), 5), 0);
        for (int i = 0; i < 50; ++i) orv_log_output(ORV_LOG_INFO, "engine line %d", i);
        autolog_deinit();
    });
    a.join();
    b.join();
    std::string workText = readFile(work + "/white_list.log");
    std::string engineText = readFile(engine + "/base_engine.log");
    EXPECT_TRUE(fileContains(work + "/white_list.log", "work line 49"));
    EXPECT_TRUE(fileContains(engine + "/base_engine.log", "engine line 49"));
    EXPECT_EQ(workText.find("engine line"), std::string::npos);
    EXPECT_EQ(engineText.find("work line"), std::string::npos);
}

TEST(Autolog, ThreadsSharingADirectoryShareTheFileUntilTheLastLetsGo) {
    LogCapture capture;
    TempDir tmp;
    std::string dir = tmp / "shared";
    std::string file = dir + "/shared.log";
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            ASSERT_EQ(autolog_init(dir.c_str(), 5), 0);
            for (int i = 0; i < 200; ++i) error_output(LOG_LVL_INFO, "s", t, "thread %d line %d", t, i);
            autolog_deinit();
        });
    }
    for (auto& th : threads) th.join();
    // Serialized writes: every line whole, none interleaved or lost.
    std::istringstream lines(readFile(file));
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        EXPECT_NE(line.find(" I s("), std::string::npos) << line;
        EXPECT_NE(line.find(" line "), std::string::npos) << line;
    }
    EXPECT_EQ(count, 800);

    // One thread letting go leaves the file working for the other.
    std::string stayed;
    std::thread first([&] {
        ASSERT_EQ(autolog_init(dir.c_str(), 5), 0);
        std::thread second([&] {
            ASSERT_EQ(autolog_init(dir.c_str(), 5), 0);
            autolog_deinit();
        });
        second.join();
        error_output(LOG_LVL_INFO, "s", 0, "still bound");
        autolog_deinit();
    });
    first.join();
    EXPECT_TRUE(fileContains(file, "still bound"));
}

// Which file is the process default depends on the whole history of the
// process, so this runs in a freshly started copy of the test program.
std::string checkDefaultBinding(const std::string& root) {
    std::string first = root + "/first";
    std::string other = root + "/other";
    if (autolog_init(first.c_str(), 5) != 0) return "first autolog_init failed";
    std::thread bound([&] {
        autolog_init(other.c_str(), 5);
        error_output(LOG_LVL_ERROR, "t", 1, "bound line");
        autolog_deinit();
        error_output(LOG_LVL_ERROR, "t", 2, "after deinit");
    });
    bound.join();
    std::thread([] { error_output(LOG_LVL_ERROR, "t", 3, "unbound line"); }).join();

    std::string firstText = readFile(first + "/first.log");
    std::string otherText = readFile(other + "/other.log");
    if (otherText.find("bound line") == std::string::npos) return "bound line missing: " + otherText;
    if (otherText.find("after deinit") != std::string::npos) return "deinit did not unbind: " + otherText;
    if (otherText.find("unbound line") != std::string::npos) return "unbound went to the second file";
    if (firstText.find("after deinit") == std::string::npos) return "default missed the unbound write: " + firstText;
    if (firstText.find("unbound line") == std::string::npos) return "default missed the new thread: " + firstText;
    return "";
}

TEST(AutologDeathTest, UnboundThreadsWriteToTheFirstFileOpened) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TempDir tmp;
    EXPECT_EXIT(
        {
            std::string problem = checkDefaultBinding(tmp.path());
            fprintf(stderr, "%s", problem.c_str());
            exit(problem.empty() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// Engine threads are never stopped: they keep logging while the process runs
// its exit handlers, and that must not bring it down.
TEST(AutologDeathTest, ThreadsLoggingDuringExitDoNotCrashIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TempDir tmp;
    EXPECT_EXIT(
        {
            error_output_set_level(4);
            autolog_init((tmp / "exiting").c_str(), 5);
            for (int t = 0; t < 4; ++t) {
                std::thread([t, &tmp] {
                    if (t % 2) autolog_init((tmp / ("engine" + std::to_string(t))).c_str(), 5);
                    for (;;) error_output(LOG_LVL_DETAIL, "exit", t, "still running");
                }).detach();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            exit(0);
        },
        testing::ExitedWithCode(0), "");
}

// Restores the default maximum even when an assertion fails.
class MaxSizeGuard {
public:
    explicit MaxSizeGuard(long bytes) { autolog_set_max_size(bytes); }
    ~MaxSizeGuard() { autolog_set_max_size(10L * 1024 * 1024); }
};

TEST(Autolog, RotatesToDotOneWhenTheFileWouldPassTheMaximum) {
    LogCapture capture;
    TempDir tmp;
    MaxSizeGuard small(300);
    std::string dir = tmp / "rot";
    std::string file = dir + "/rot.log";
    onThread([&] {
        ASSERT_EQ(autolog_init(dir.c_str(), 5), 0);
        for (int i = 0; i < 40; ++i) orv_log_output(ORV_LOG_ERROR, "line %03d ----------------------------", i);
        autolog_deinit();
    });
    ASSERT_TRUE(std::filesystem::exists(file + ".1"));
    EXPECT_FALSE(std::filesystem::exists(file + ".2"));
    auto current = std::filesystem::file_size(file);
    auto previous = std::filesystem::file_size(file + ".1");
    EXPECT_LE(current, 300u);
    EXPECT_LE(previous, 300u);
    EXPECT_GT(previous, 250u);  // filled close to the limit before rotating

    // The newest lines are kept in order across the two files.
    std::string kept = readFile(file + ".1") + readFile(file);
    EXPECT_NE(kept.find("line 039"), std::string::npos);
    EXPECT_LT(kept.find("line 030"), kept.find("line 039"));
    EXPECT_EQ(kept.find("line 000"), std::string::npos) << "an older .1 must be replaced";
}

}  // namespace
