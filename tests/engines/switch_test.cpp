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
#include "whitelist.h"
#include "whitelist_api.h"
#include "whitelist_impl.h"

using fake_model::Engine;
using fake_model::FactoryMode;
using fake_model::Library;

namespace {
const char kTimerFailed[] = "start timer check cron task failed.";

class SwitchTest : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        memset(&g_whitelist_context, 0, sizeof(g_whitelist_context));
        FakeClock::gate(true);
    }
};

unsigned int period_of(void (*callback)(void)) {
    for (const recorders::Timer& timer : recorders::timers()) {
        if (timer.callback == callback) {
            return timer.period;
        }
    }
    return 0;
}
}  // namespace

TEST_F(SwitchTest, InitEngineStartsBothWithModelsAndTimersAndUninitDetaches) {
    LogCapture log;
    EXPECT_EQ(0, whitelist_init_engine());
    EXPECT_EQ(1, g_whitelist_context.base_engine_on);
    EXPECT_EQ(1, g_whitelist_context.rasp_engine_on);
    EXPECT_EQ(1, call_log::count("register init"));
    EXPECT_EQ(1, call_log::count("whitelist_base_load_model_data"));
    EXPECT_EQ(1, call_log::count("whitelist_rasp_load_model_data"));
    // The reversed test leaves the base refresh unstarted.
    EXPECT_EQ(nullptr, g_whitelist_context.timer_base_open_process);
    EXPECT_EQ(4u, recorders::timers().size());
    EXPECT_EQ(14400000u, period_of(upload_openport_process));
    EXPECT_EQ(3600000u, period_of(clean_whitelist_ori_log));
    EXPECT_EQ(1800000u, period_of(whitelist_rasp_update_open_process));
    EXPECT_EQ(3600000u, period_of(clean_whitelist_raspori_log));
    EXPECT_TRUE(log.contains("init timer suc.", 3));
    EXPECT_TRUE(log.contains("init rasp timer suc.", 3));

    FakeClock::gate(false);
    whitelist_base_engine_uninit();
    whitelist_rasp_engine_uninit();
    EXPECT_EQ(1, call_log::count("register uninit"));
    EXPECT_EQ(nullptr, BaseEngine::GetInstance()->m_baseEngine);
    EXPECT_EQ(nullptr, RaspEngine::GetInstance()->m_raspEngine);
}

TEST_F(SwitchTest, FailedEnginesAreReportedAndTheOtherStillStarts) {
    LogCapture log;
    Library::instance().setFactoryMode(Engine::Base, FactoryMode::Null);
    EXPECT_NE(0, whitelist_init_engine());
    EXPECT_TRUE(log.contains("base engine init fail", 1));
    EXPECT_EQ(0, g_whitelist_context.base_engine_on);
    EXPECT_EQ(1, g_whitelist_context.rasp_engine_on);
    EXPECT_EQ(0, call_log::count("whitelist_base_load_model_data"));

    // A failed attach stops the base start before the engine is asked.
    recorders::setRegisterInitResult(false);
    Library::instance().reset();
    EXPECT_EQ(WL_TASK_REFUSED, whitelist_engine_switch());
    EXPECT_EQ(0, Library::instance().count(Engine::Base, "getBaseInterface"));

    FakeClock::gate(false);  // lets the timing thread see the stop
    RaspEngine::GetInstance()->Uninitialize();
    Library::instance().setFactoryMode(Engine::Rasp, FactoryMode::Throw);
    EXPECT_EQ(WL_TASK_REFUSED, whitelist_rasp_switch());
    EXPECT_TRUE(log.contains("inner model init fail", 1));
}

// Each row: which group starts, what runs already, the start results.
TEST_F(SwitchTest, TimerGroupsStopAtTheFirstFailureAndTestTheFieldsTheyTest) {
    const struct {
        const char* name;
        bool rasp;
        bool baseOpenProcessSet;
        bool baseCleanRuns;
        std::vector<bool> script;
        size_t started;
        bool failed;
    } rows[] = {
        {"BaseAllStart", false, false, false, {}, 2, false},
        {"BaseOpenProcessOnlyWhenAlreadySet", false, true, false, {}, 3, false},
        {"BaseOpenPortFails", false, false, false, {false}, 0, true},
        {"BaseCleanLogFails", false, false, false, {true, false}, 1, true},
        {"RaspOpenProcessFails", true, false, true, {false}, 0, true},
        {"RaspCleanFailureUnnoticedWhileBaseCleanRuns", true, false, true, {true, false}, 1, false},
        {"RaspReportsTheBaseCleanTimer", true, false, false, {}, 2, true},
    };
    for (const auto& row : rows) {
        memset(&g_whitelist_context, 0, sizeof(g_whitelist_context));
        recorders::reset();
        void* marker = reinterpret_cast<void*>(0x7);
        g_whitelist_context.timer_base_open_process = row.baseOpenProcessSet ? marker : nullptr;
        g_whitelist_context.timer_clean_log = row.baseCleanRuns ? marker : nullptr;
        recorders::scriptTimerStarts(row.script);
        LogCapture log;
        row.rasp ? init_whitelist_rasp_timer(&g_whitelist_context) : init_whitelist_timer(&g_whitelist_context);
        EXPECT_EQ(row.started, recorders::timers().size()) << row.name;
        EXPECT_EQ(row.failed, log.contains(kTimerFailed, 1)) << row.name;
        EXPECT_EQ(!row.failed, log.contains(row.rasp ? "init rasp timer suc." : "init timer suc.", 3)) << row.name;
    }
    // A set field restarts the base refresh, which then reaches its target.
    memset(&g_whitelist_context, 0, sizeof(g_whitelist_context));
    recorders::reset();
    g_whitelist_context.timer_base_open_process = reinterpret_cast<void*>(0x7);
    init_whitelist_timer(&g_whitelist_context);
    EXPECT_EQ(1800000u, recorders::timers().at(2).period);
    recorders::timers().at(2).callback();
    EXPECT_EQ(1, call_log::count("whitelist_base_update_open_process"));
}

// A config reply 0 then 1: each running timer closed once, the fields
// cleared, then every timer started anew with its period.
TEST_F(SwitchTest, TimersStopOnceAndStartAnew) {
    init_whitelist_timer(&g_whitelist_context);
    init_whitelist_rasp_timer(&g_whitelist_context);
    const size_t before = call_log::calls().size();
    LogCapture log;
    for (int round = 0; round < 2; ++round) {
        uninit_whitelist_timer(&g_whitelist_context);
        uninit_whitelist_rasp_timer(&g_whitelist_context);
    }
    std::vector<std::string> closes = call_log::calls();
    closes.erase(closes.begin(), closes.begin() + static_cast<long>(before));
    EXPECT_EQ((std::vector<std::string>{"timer close 1", "timer close 2", "timer close 3", "timer close 4"}), closes);
    EXPECT_EQ(2, log.count("uninit whitelist timer suc.", 3));
    EXPECT_EQ(2, log.count("uninit rasp timer suc.", 3));
    const WhitelistContext& c = g_whitelist_context;
    for (void* timer : {c.timer_openport, c.timer_clean_log, c.timer_base_open_process, c.timer_rasp_open_process,
                        c.timer_clean_rasp_log}) {
        EXPECT_EQ(nullptr, timer);
    }
    init_whitelist_timer(&g_whitelist_context);
    init_whitelist_rasp_timer(&g_whitelist_context);
    ASSERT_EQ(8u, recorders::timers().size());
    EXPECT_EQ(14400000u, recorders::timers()[4].period);
    EXPECT_EQ(reinterpret_cast<void*>(5), c.timer_openport);
    EXPECT_EQ(reinterpret_cast<void*>(8), c.timer_clean_rasp_log);
}

class DumpPathTest : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        m_dir = path("var/base/originLog");
        std::filesystem::create_directories(m_dir + "/sub");
    }
    // A sparse file: its size costs no disk.
    void sparse(const std::string& file, long long size) {
        int fd = open(file.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
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

TEST_F(DumpPathTest, ExactlyTheLimitStaysOneByteMoreEmptiesTheDirectoryButKeepsSubdirectories) {
    LogCapture log;
    sparse(m_dir + "/a.log", WL_ORIGIN_LOG_LIMIT - 1000);
    sparse(m_dir + "/b.log", 1000);
    EXPECT_EQ(0, check_dump_path(m_dir.c_str()));
    EXPECT_EQ(2u, files());
    EXPECT_FALSE(log.contains("dump block is over size"));

    sparse(m_dir + "/b.log", 1001);
    clean_whitelist_ori_log();
    EXPECT_EQ(0u, files());
    EXPECT_TRUE(std::filesystem::is_directory(m_dir + "/sub"));
    EXPECT_TRUE(log.contains("dump block is over size, try to clean.", 3));
    EXPECT_TRUE(log.contains("==start to clean dump path.", 3));
    EXPECT_EQ(2, log.count("remove path ", 3));
    EXPECT_EQ(-1, check_dump_path(path("nowhere").c_str()));
    EXPECT_TRUE(log.contains("open dump_path[" + path("nowhere") + "] failed.", 1));
}

TEST_F(EngineTest, ReloadAnnouncesEveryKnownProcessAgain) {
    g_model_pid->clear();
    reload_vrccl_filter();
    EXPECT_TRUE(call_log::calls().empty());
    (*g_model_pid)[4321] = false;
    (*g_model_pid)[17] = true;
    (*g_model_pid)[0x100000005ULL] = true;
    reload_vrccl_filter();
    EXPECT_EQ((std::vector<std::string>{"vrccl_action_subscribe(260,17,-1)", "vrccl_action_subscribe(260,4321,-1)",
                                        "vrccl_action_subscribe(260,5,-1)"}),
              call_log::calls())
        << "only the low 32 bits are sent";
    EXPECT_EQ(3u, g_model_pid->size());
    EXPECT_FALSE(g_model_pid->at(4321));
    g_model_pid->clear();
}
