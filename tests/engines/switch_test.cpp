// Engine switches, the five timers, origin-log retention, the collector
// filter reload and the engine init functions.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "base.h"
#include "engine_test_env.h"
#include "log_capture.h"
#include "rasp.h"
#include "recorders.h"
#include "register.h"
#include "whitelist.h"
#include "whitelist_api.h"
#include "whitelist_impl.h"

using fake_model::Engine;
using fake_model::FactoryMode;
using fake_model::Library;

class SwitchTest : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        memset(&g_whitelist_context, 0, sizeof(g_whitelist_context));
        FakeClock::gate(true);
    }
    unsigned int periodOf(void (*callback)(void)) {
        for (const recorders::Timer& timer : recorders::timers()) {
            if (timer.callback == callback) {
                return timer.period;
            }
        }
        return 0;
    }
};

TEST_F(SwitchTest, InitEngineStartsBothWithModelsAndTimers) {
    LogCapture log;
    EXPECT_EQ(0, whitelist_init_engine());
    EXPECT_EQ(1, g_whitelist_context.base_engine_on);
    EXPECT_EQ(1, g_whitelist_context.rasp_engine_on);
    EXPECT_EQ(1, recorders::registerInitCalls());
    EXPECT_EQ((std::vector<std::string>{"whitelist_base_load_model_data", "whitelist_rasp_load_model_data"}),
              recorders::modelCalls());
    EXPECT_NE(nullptr, g_whitelist_context.timer_openport);
    EXPECT_NE(nullptr, g_whitelist_context.timer_clean_log);
    // The reversed test leaves the base refresh unstarted.
    EXPECT_EQ(nullptr, g_whitelist_context.timer_base_open_process);
    EXPECT_NE(nullptr, g_whitelist_context.timer_rasp_open_process);
    EXPECT_NE(nullptr, g_whitelist_context.timer_clean_rasp_log);
    EXPECT_EQ(4, recorders::timerStartCalls());
    EXPECT_EQ(14400000u, periodOf(upload_openport_process));
    EXPECT_EQ(3600000u, periodOf(clean_whitelist_ori_log));
    EXPECT_EQ(1800000u, periodOf(whitelist_rasp_update_open_process));
    EXPECT_EQ(3600000u, periodOf(clean_whitelist_raspori_log));
    EXPECT_TRUE(log.contains("init timer suc.", 3));
    EXPECT_TRUE(log.contains("init rasp timer suc.", 3));
    EXPECT_TRUE(BaseEngine::GetInstance()->m_isRunning.load());
    EXPECT_TRUE(RaspEngine::GetInstance()->m_isRunning.load());
}

TEST_F(SwitchTest, TimerCallbacksReachTheirTargets) {
    ASSERT_EQ(0, whitelist_init_engine());
    for (const recorders::Timer& timer : recorders::timers()) {
        if (timer.callback != clean_whitelist_ori_log && timer.callback != clean_whitelist_raspori_log) {
            timer.callback();
        }
    }
    std::vector<std::string> calls = recorders::modelCalls();
    EXPECT_EQ((std::vector<std::string>{"whitelist_base_load_model_data", "whitelist_rasp_load_model_data",
                                        "upload_openport_process", "whitelist_rasp_update_open_process"}),
              calls);
}

TEST_F(SwitchTest, BaseFailureStillStartsRaspAndReportsTheBaseTimerField) {
    LogCapture log;
    Library::instance().setFactoryMode(Engine::Base, FactoryMode::Null);
    EXPECT_NE(0, whitelist_init_engine());
    EXPECT_TRUE(log.contains("base engine init fail", 1));
    EXPECT_EQ(0, g_whitelist_context.base_engine_on);
    EXPECT_EQ(1, g_whitelist_context.rasp_engine_on);
    // The rasp group tests the base clean timer, which never started.
    EXPECT_TRUE(log.contains("start timer check cron task failed.", 1));
    EXPECT_FALSE(log.contains("init rasp timer suc."));
    EXPECT_NE(nullptr, g_whitelist_context.timer_clean_rasp_log) << "the rasp clean timer runs all the same";
    EXPECT_EQ((std::vector<std::string>{"whitelist_rasp_load_model_data"}), recorders::modelCalls());
}

TEST_F(SwitchTest, RegisterFailureStopsTheBaseStartBeforeTheEngine) {
    recorders::setRegisterInitResult(false);
    LogCapture log;
    EXPECT_EQ(0, whitelist_base_engine_init());
    EXPECT_EQ(0, Library::instance().count(Engine::Base, "getBaseInterface"));
    EXPECT_EQ(-1, whitelist_engine_switch());
    EXPECT_TRUE(log.contains("base engine init fail", 1));
}

TEST_F(SwitchTest, RaspFailureIsReported) {
    LogCapture log;
    Library::instance().setFactoryMode(Engine::Rasp, FactoryMode::Throw);
    EXPECT_EQ(0, whitelist_rasp_engine_init());
    EXPECT_EQ(-1, whitelist_rasp_switch());
    EXPECT_TRUE(log.contains("inner model init fail", 1));
    EXPECT_EQ(0, g_whitelist_context.rasp_engine_on);
}

TEST_F(SwitchTest, UninitFunctionsStopTheEnginesAndDetach) {
    ASSERT_EQ(1, whitelist_base_engine_init());
    ASSERT_EQ(1, whitelist_rasp_engine_init());
    FakeClock::gate(false);
    whitelist_base_engine_uninit();
    whitelist_rasp_engine_uninit();
    EXPECT_EQ(1, recorders::registerUninitCalls());
    EXPECT_EQ(nullptr, BaseEngine::GetInstance()->m_baseEngine);
    EXPECT_EQ(nullptr, RaspEngine::GetInstance()->m_raspEngine);
}

TEST_F(SwitchTest, TimersAreSafeToRepeatAndStartAnew) {
    LogCapture log;
    init_whitelist_timer(&g_whitelist_context);
    init_whitelist_rasp_timer(&g_whitelist_context);
    init_whitelist_timer(&g_whitelist_context);
    init_whitelist_rasp_timer(&g_whitelist_context);
    EXPECT_EQ(4, recorders::timerStartCalls()) << "a running timer isn't started twice";

    uninit_whitelist_timer(&g_whitelist_context);
    uninit_whitelist_rasp_timer(&g_whitelist_context);
    uninit_whitelist_timer(&g_whitelist_context);
    uninit_whitelist_rasp_timer(&g_whitelist_context);
    EXPECT_EQ(4, recorders::timerCloseCalls()) << "a stopped timer isn't closed twice";
    EXPECT_EQ(nullptr, g_whitelist_context.timer_openport);
    EXPECT_EQ(nullptr, g_whitelist_context.timer_clean_rasp_log);
    EXPECT_EQ(2, log.count("uninit whitelist timer suc.", 3));
    EXPECT_EQ(2, log.count("uninit rasp timer suc.", 3));

    init_whitelist_timer(&g_whitelist_context);
    EXPECT_EQ(6, recorders::timerStartCalls()) << "switched on again, the timers start anew";
}

TEST_F(SwitchTest, BaseOpenProcessTimerStartsOnlyWhenItsFieldIsAlreadySet) {
    // Nothing sets the field in the module; a set field restarts the timer.
    void* marker = reinterpret_cast<void*>(0x1);
    g_whitelist_context.timer_base_open_process = marker;
    init_whitelist_timer(&g_whitelist_context);
    EXPECT_EQ(3, recorders::timerStartCalls());
    EXPECT_NE(marker, g_whitelist_context.timer_base_open_process);
    EXPECT_EQ(1800000u, recorders::timers()[2].period);
    recorders::timers()[2].callback();
    EXPECT_EQ((std::vector<std::string>{"whitelist_base_update_open_process"}), recorders::modelCalls());
}

struct TimerFailure {
    const char* name;
    std::vector<bool> script;
    int starts;
    bool baseDone;
};

TEST_F(SwitchTest, FailedBaseTimerStopsTheLaterOnes) {
    const TimerFailure cases[] = {
        {"OpenPortFails", {false}, 1, false},
        {"CleanLogFails", {true, false}, 2, false},
    };
    for (const TimerFailure& c : cases) {
        memset(&g_whitelist_context, 0, sizeof(g_whitelist_context));
        recorders::reset();
        recorders::scriptTimerStarts(c.script);
        LogCapture log;
        init_whitelist_timer(&g_whitelist_context);
        EXPECT_EQ(c.starts, recorders::timerStartCalls()) << c.name;
        EXPECT_TRUE(log.contains("start timer check cron task failed.", 1)) << c.name;
        EXPECT_FALSE(log.contains("init timer suc.")) << c.name;
    }
}

TEST_F(SwitchTest, RaspTimerFailures) {
    {
        recorders::scriptTimerStarts({false});
        LogCapture log;
        init_whitelist_rasp_timer(&g_whitelist_context);
        EXPECT_EQ(1, recorders::timerStartCalls());
        EXPECT_EQ(nullptr, g_whitelist_context.timer_clean_rasp_log);
        EXPECT_TRUE(log.contains("start timer check cron task failed.", 1));
    }
    {
        // A true failure of the rasp clean timer goes unnoticed while the base
        // clean timer runs.
        memset(&g_whitelist_context, 0, sizeof(g_whitelist_context));
        recorders::reset();
        g_whitelist_context.timer_clean_log = reinterpret_cast<void*>(0x2);
        recorders::scriptTimerStarts({true, false});
        LogCapture log;
        init_whitelist_rasp_timer(&g_whitelist_context);
        EXPECT_EQ(nullptr, g_whitelist_context.timer_clean_rasp_log);
        EXPECT_FALSE(log.contains("start timer check cron task failed."));
        EXPECT_TRUE(log.contains("init rasp timer suc.", 3));
    }
}

class DumpPathTest : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        m_dir = m_install->path("var/base/originLog");
        std::filesystem::create_directories(m_dir);
    }
    // A sparse file: its size costs no disk.
    void sparse(const std::string& name, long long size) {
        std::string path = m_dir + "/" + name;
        int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(0, ftruncate(fd, static_cast<off_t>(size)));
        close(fd);
    }
    size_t files() {
        size_t n = 0;
        for (const auto& entry : std::filesystem::directory_iterator(m_dir)) {
            n += entry.is_directory() ? 0 : 1;
        }
        return n;
    }
    std::string m_dir;
};

TEST_F(DumpPathTest, ExactlyTheLimitStays) {
    LogCapture log;
    sparse("a.log", WL_ORIGIN_LOG_LIMIT - 1000);
    sparse("b.log", 1000);
    EXPECT_EQ(0, check_dump_path(m_dir.c_str()));
    EXPECT_EQ(2u, files());
    EXPECT_FALSE(log.contains("dump block is over size"));
}

TEST_F(DumpPathTest, OneByteOverEmptiesTheWholeDirectoryButKeepsSubdirectories) {
    LogCapture log;
    sparse("a.log", WL_ORIGIN_LOG_LIMIT - 1000);
    sparse("b.log", 1001);
    sparse("c.log", 0);
    std::filesystem::create_directories(m_dir + "/sub");
    clean_whitelist_ori_log();
    EXPECT_EQ(0u, files());
    EXPECT_TRUE(std::filesystem::is_directory(m_dir + "/sub"));
    EXPECT_TRUE(log.contains("dump block is over size, try to clean.", 3));
    EXPECT_TRUE(log.contains("==start to clean dump path.", 3));
    EXPECT_TRUE(log.contains("originLog/c.log", 3)) << log.dump();
    EXPECT_EQ(3, log.count("remove path ", 3));
}

TEST_F(DumpPathTest, SymbolicLinkCountsWithItsOwnSize) {
    // The target lies outside and is large; the link itself is a few bytes.
    std::string outside = m_install->path("big.bin");
    int fd = open(outside.c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, ftruncate(fd, WL_ORIGIN_LOG_LIMIT + 10));
    close(fd);
    std::filesystem::create_symlink(outside, m_dir + "/link");
    sparse("a.log", WL_ORIGIN_LOG_LIMIT - static_cast<long long>(outside.size()));
    EXPECT_EQ(0, check_dump_path(m_dir.c_str()));
    EXPECT_EQ(2u, files()) << "link size + file equals the limit exactly";
    sparse("b.log", 1);
    EXPECT_EQ(0, check_dump_path(m_dir.c_str()));
    EXPECT_EQ(0u, files());
    EXPECT_TRUE(std::filesystem::exists(outside)) << "removing a link leaves its target";
}

TEST_F(DumpPathTest, MissingDirectoryFails) {
    LogCapture log;
    std::string missing = m_install->path("nowhere");
    EXPECT_EQ(-1, check_dump_path(missing.c_str()));
    EXPECT_TRUE(log.contains("open dump_path[" + missing + "] failed.", 1));
}

TEST_F(DumpPathTest, RaspDirectoryIsCleanedByItsOwnTimer) {
    std::string rasp = m_install->path("var/base/raspOriginLog");
    std::filesystem::create_directories(rasp);
    std::string file = rasp + "/r.log";
    int fd = open(file.c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, ftruncate(fd, WL_ORIGIN_LOG_LIMIT + 1));
    close(fd);
    sparse("a.log", WL_ORIGIN_LOG_LIMIT + 1);
    clean_whitelist_raspori_log();
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_EQ(1u, files()) << "the base directory is not the rasp timer's";
}

TEST_F(EngineTest, ReloadAnnouncesEveryKnownProcessAgain) {
    g_model_pid->clear();
    reload_vrccl_filter();
    EXPECT_TRUE(recorders::subscribes().empty());
    (*g_model_pid)[4321] = false;
    (*g_model_pid)[17] = true;
    (*g_model_pid)[0x100000005ULL] = true;
    reload_vrccl_filter();
    std::vector<recorders::Subscribe> calls = recorders::subscribes();
    ASSERT_EQ(3u, calls.size());
    EXPECT_EQ(17, calls[0].id);
    EXPECT_EQ(4321, calls[1].id);
    EXPECT_EQ(5, calls[2].id) << "only the low 32 bits are sent";
    for (const recorders::Subscribe& call : calls) {
        EXPECT_EQ(260, call.action);
        EXPECT_EQ(-1, call.reserved);
    }
    EXPECT_EQ(3u, g_model_pid->size());
    EXPECT_FALSE(g_model_pid->at(4321));
    g_model_pid->clear();
}

TEST(ModuleLoad, SingletonsAndListsExistBeforeAnyCall) {
    EXPECT_EQ(BaseEngine::GetInstance(), base_engine);
    EXPECT_EQ(RaspEngine::GetInstance(), rasp_engine);
    EXPECT_EQ(Register::GetInstance(), white_register);
    ASSERT_NE(nullptr, g_model_array);
    ASSERT_NE(nullptr, g_rasp_model_array);
    ASSERT_NE(nullptr, g_model_pid);
    EXPECT_NE(static_cast<void*>(g_model_array), static_cast<void*>(g_rasp_model_array));
}
