#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "orv_log.h"
#include "temp_dir.h"

namespace {

bool has(const std::string& text, const std::string& fragment) { return text.find(fragment) != std::string::npos; }

// The engines open their logs from the module's work thread, whose own lines must stay in its file.
TEST(Autolog, EachThreadKeepsTheFirstFileItBoundUntilDeinit) {
    LogCapture capture;
    TempDir tmp;
    std::string work = tmp / "var/log/white_list";  // parents are created
    std::string engine = tmp / "base_engine/";      // named after the last component
    std::thread workThread([&] {
        ASSERT_EQ(autolog_init(work.c_str(), 5), 0);
        ASSERT_EQ(autolog_init(engine.c_str(), 5), 0);
        for (int i = 0; i < 50; ++i) error_output(LOG_LVL_INFO, "t", i, "work line %d", i);
        autolog_deinit();
        ASSERT_EQ(autolog_init(engine.c_str(), 5), 0);
        error_output(LOG_LVL_INFO, "t", 2, "rebound line");
        autolog_deinit();
    });
    std::thread engineThread([&] {
        ASSERT_EQ(autolog_init(engine.c_str(), 5), 0);
        for (int i = 0; i < 50; ++i) orv_log_output(ORV_LOG_INFO, "engine line %d", i);
        autolog_deinit();
    });
    workThread.join();
    engineThread.join();
    std::string workText = readFile(work + "/white_list.log");
    std::string engineText = readFile(engine + "base_engine.log");
    EXPECT_TRUE(has(workText, "work line 49") && !has(workText, "engine") && !has(workText, "rebound")) << workText;
    EXPECT_TRUE(has(engineText, "engine line 49") && has(engineText, "rebound") && !has(engineText, "work"))
        << engineText;
}

// Logs hold what applications did; a log left wider by an older build is tightened.
TEST(Autolog, LogFilesAndDirectoriesAreRootAndGroupOnly) {
    LogCapture capture;
    TempDir tmp;
    std::string dir = tmp / "var/log/agent/white_list";
    std::filesystem::create_directories(tmp / "old");
    writeFile(tmp / "old/old.log", "earlier line\n");
    std::filesystem::permissions(tmp / "old/old.log", std::filesystem::perms(0666));
    mode_t old = ::umask(0);
    std::thread worker([&] {
        ASSERT_EQ(autolog_init(dir.c_str(), 5), 0);
        error_output(LOG_LVL_INFO, "t", 1, "a line");
        autolog_deinit();
        ASSERT_EQ(autolog_init((tmp / "old").c_str(), 5), 0);
        error_output(LOG_LVL_INFO, "t", 1, "a line");
        autolog_deinit();
    });
    worker.join();
    ::umask(old);
    auto mode = [](const std::string& path) {
        return static_cast<unsigned>(std::filesystem::status(path).permissions()) & 0777;
    };
    EXPECT_EQ(mode(dir + "/white_list.log"), 0640u);
    EXPECT_EQ(mode(dir), 0750u);
    EXPECT_EQ(mode(tmp / "var/log"), 0750u) << "parents made on the way too";
    EXPECT_EQ(mode(tmp / "old/old.log"), 0640u);
}

TEST(Autolog, ThreadsSharingADirectoryShareTheFileUntilTheLastLetsGo) {
    LogCapture capture;
    TempDir tmp;
    std::string dir = tmp / "shared";
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            ASSERT_EQ(autolog_init(dir.c_str(), 5), 0);
            for (int i = 0; i < 200; ++i) error_output(LOG_LVL_INFO, "s", t, "thread %d line %d", t, i);
            autolog_deinit();
        });
    }
    for (auto& th : threads) th.join();
    std::istringstream lines(readFile(dir + "/shared.log"));
    const std::regex whole(R"(\.\d{3} I s\(\d\): thread \d line \d+$)");  // no interleaved writes
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) EXPECT_TRUE(std::regex_search(line, whole)) << line;
    EXPECT_EQ(count, 800);

    std::thread([&] {
        ASSERT_EQ(autolog_init(dir.c_str(), 5), 0);
        std::thread([&] {
            autolog_init(dir.c_str(), 5);
            autolog_deinit();
        }).join();
        error_output(LOG_LVL_INFO, "s", 0, "still bound");
    }).join();
    EXPECT_TRUE(has(readFile(dir + "/shared.log"), "still bound"));
}

TEST(Autolog, RotatesToDotOneWhenTheFileWouldPassTheMaximum) {
    LogCapture capture;
    TempDir tmp;
    std::string file = tmp / "rot/rot.log";
    autolog_set_max_size(300);
    std::thread([&] {
        ASSERT_EQ(autolog_init((tmp / "rot").c_str(), 5), 0);
        for (int i = 0; i < 40; ++i) orv_log_output(ORV_LOG_ERROR, "line %03d ----------------------------", i);
    }).join();
    autolog_set_max_size(10L * 1024 * 1024);
    ASSERT_TRUE(std::filesystem::exists(file + ".1"));
    EXPECT_FALSE(std::filesystem::exists(file + ".2"));
    EXPECT_LE(std::filesystem::file_size(file), 300u);
    EXPECT_LE(std::filesystem::file_size(file + ".1"), 300u);
    EXPECT_GT(std::filesystem::file_size(file + ".1"), 250u);  // filled close to the limit before rotating
    std::string kept = readFile(file + ".1") + readFile(file);
    EXPECT_LT(kept.find("line 030"), kept.find("line 039"));
    EXPECT_FALSE(has(kept, "line 000")) << "an older .1 must be replaced";
}

}  // namespace
