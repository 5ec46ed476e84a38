// Start, failed start, stop and restart of both engines.
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>

#include "base.h"
#include "engine_test_env.h"
#include "event_queues.h"
#include "log_capture.h"
#include "rasp.h"

using fake_model::Engine;
using fake_model::FactoryMode;
using fake_model::Library;

namespace {
bool same_path(const std::string& a, const std::string& b) {
    std::error_code error;
    return std::filesystem::equivalent(a, b, error);
}

// Set only in the child of the exit test. A destructor function runs after
// every exit handler and static destructor, so it sees what the running
// engines' threads would still touch once exit has released the rest.
std::atomic<bool> g_checkAtExit{false};
// Copied by bytes: the 32-bit strings share their text when copied.
char g_savePathsBeforeExit[2][512];

__attribute__((destructor)) void check_running_engines_after_exit() {
    if (!g_checkAtExit) return;
    const BaseEngine* base = BaseEngine::GetInstance();
    const RaspEngine* rasp = RaspEngine::GetInstance();
    bool intact = g_baseDataLock != nullptr && g_raspDataLock != nullptr && base->m_engineLock != nullptr &&
                  rasp->m_engineLock != nullptr && base->m_logSavePath == g_savePathsBeforeExit[0] &&
                  rasp->m_modelSavePath == g_savePathsBeforeExit[1];
    _exit(intact ? 0 : 3);
}
}  // namespace

TEST_F(EngineTest, StartsInOrderWithItsDirectoriesAndWithoutAConfigFile) {
    const struct {
        Engine engine;
        bool config;
        std::vector<std::string> ops;
        const char* modelDir;
        const char* logDir;
    } rows[] = {
        {Engine::Rasp,
         false,
         {"getRaspInterface", "loadModel", "getModelStatus"},
         "var/base/raspModel",
         "var/base/raspOriginLog"},
        {Engine::Base,
         true,
         {"getBaseInterface", "setConfig", "loadModel", "getModelStatus"},
         "var/base/model",
         "var/base/originLog"},
    };
    for (const auto& row : rows) {
        LogCapture log;
        if (row.config) {
            writeFile("config/baseConfig.ini");
        }
        ASSERT_TRUE(initialize(row.engine));
        ASSERT_TRUE(wait_calls(row.engine, "getModelStatus", 1));
        std::vector<std::string> ops = Library::instance().opSequence(row.engine);
        EXPECT_EQ(row.ops, std::vector<std::string>(ops.begin(), ops.begin() + row.ops.size()));
        if (row.config) {
            EXPECT_TRUE(
                same_path(Library::instance().calls(row.engine, "setConfig")[0].text, path("config/baseConfig.ini")));
        }
        EXPECT_EQ(!row.config, log.contains("config not exists", 1));
        EXPECT_TRUE(same_path(Library::instance().calls(row.engine, "loadModel")[0].text, path(row.modelDir)));
        EXPECT_TRUE(std::filesystem::is_directory(path(row.logDir)));
        EXPECT_TRUE(log.contains("Initialize suc", 3));
    }
}

struct StartFailure {
    const char* name;
    FactoryMode factory;
    const char* failingOp;  // scripted to return -1
    // A file where the engine wants this directory, per engine.
    const char* baseBlocked;
    const char* raspBlocked;
    const char* baseMessage;
    const char* raspMessage;
};

class StartFailureTest : public EngineTest, public ::testing::WithParamInterface<std::tuple<StartFailure, Engine>> {};

const StartFailure kStartFailures[] = {
    {"FactoryThrows", FactoryMode::Throw, "", "", "", "obEngine.getBaseInterface error", "get raspInterface error"},
    {"FactoryNull", FactoryMode::Null, "", "", "", "m_baseEngine is null", "m_raspEngine is null"},
    {"SetConfigFails", FactoryMode::Normal, "setConfig", "", "", "set config error", "set config error"},
    {"ModelDirBlocked", FactoryMode::Normal, "", "var/base/model", "var/base/raspModel", "load model path error",
     "load model path error"},
    {"LoadModelFails", FactoryMode::Normal, "loadModel", "", "", "Empty model loaded failed!",
     "Empty model loaded failed!"},
    {"OriginLogDirBlocked", FactoryMode::Normal, "", "var/base/originLog", "var/base/raspOriginLog",
     "create originLog save path error", "create originLog save path error"},
};

TEST_P(StartFailureTest, FailsWithItsMessageCleansUpAndCanStartAgain) {
    const StartFailure& failure = std::get<0>(GetParam());
    const Engine kind = std::get<1>(GetParam());
    const bool base = kind == Engine::Base;
    const bool objectMade = failure.factory == FactoryMode::Normal;
    const std::string blocked = base ? failure.baseBlocked : failure.raspBlocked;
    LogCapture log;
    writeFile("config/baseConfig.ini");
    if (!blocked.empty()) {
        writeFile(blocked, "a file");
    }
    Library::instance().setFactoryMode(kind, failure.factory);
    if (*failure.failingOp != 0) {
        Library::instance().queueResult(kind, failure.failingOp, -1);
    }
    // Something queued before the start shows whether the stop path ran.
    base ? queue_base_event(*baseRecord(6, 1)) : queue_rasp_text("{}");

    EXPECT_FALSE(initialize(kind));
    EXPECT_TRUE(log.contains(base ? failure.baseMessage : failure.raspMessage, 1)) << log.dump();
    EXPECT_TRUE(log.contains(base ? "baseEngine init failed!0x84ce0001" : "RaspEngine init failed!0x84ce0001", 1));
    EXPECT_EQ(0, Library::instance().liveObjects(kind));
    EXPECT_EQ(objectMade ? 1 : 0, Library::instance().count(kind, "destroy"));
    EXPECT_EQ(nullptr, base ? static_cast<void*>(BaseEngine::GetInstance()->m_baseEngine)
                            : static_cast<void*>(RaspEngine::GetInstance()->m_raspEngine));
    EXPECT_EQ(objectMade ? 0u : 1u, base ? base_queue_size() : rasp_queue_size());
    EXPECT_EQ(0, Library::instance().count(kind, "getModelStatus")) << "no thread may have started";

    // The cause removed, the whole sequence runs again.
    Library::instance().reset();
    if (!blocked.empty()) {
        std::filesystem::remove(path(blocked));
    }
    EXPECT_TRUE(initialize(kind));
    EXPECT_TRUE(wait_calls(kind, "getModelStatus", 1));
}

INSTANTIATE_TEST_SUITE_P(Engines, StartFailureTest,
                         ::testing::Combine(::testing::ValuesIn(kStartFailures),
                                            ::testing::Values(Engine::Base, Engine::Rasp)),
                         [](const ::testing::TestParamInfo<std::tuple<StartFailure, Engine>>& info) {
                             return std::string(std::get<0>(info.param).name) +
                                    (std::get<1>(info.param) == Engine::Base ? "Base" : "Rasp");
                         });

TEST_F(EngineTest, StartAndStopTwiceThenStartAgainWithANewObject) {
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(initialize(Engine::Base));
        ASSERT_TRUE(initialize(Engine::Rasp));
    }
    EXPECT_EQ(1, Library::instance().count(Engine::Base, "getBaseInterface"));
    EXPECT_EQ(1, Library::instance().liveObjects(Engine::Rasp));
    for (int round = 0; round < 2; ++round) {
        BaseEngine::GetInstance()->Uninitialize();
        RaspEngine::GetInstance()->Uninitialize();
    }
    EXPECT_EQ(1, Library::instance().count(Engine::Base, "destroy"));
    EXPECT_EQ(1, Library::instance().count(Engine::Rasp, "destroy"));
    EXPECT_FALSE(BaseEngine::GetInstance()->m_workThreadsStarted);

    ASSERT_TRUE(initialize(Engine::Base));
    ASSERT_TRUE(initialize(Engine::Rasp));
    queue_base_event(*baseRecord(6, 42));
    queue_rasp_text("{}");
    EXPECT_TRUE(wait_calls(Engine::Base, "processEvent", 1));
    EXPECT_TRUE(wait_calls(Engine::Rasp, "processEvent", 1));
    EXPECT_EQ(Library::instance().calls(Engine::Base, "destroy")[0].object + 1,
              Library::instance().calls(Engine::Base, "processEvent")[0].object)
        << "the restart works on a new library object";
}

// Leaves the process with both engines running, as the agent does.
[[noreturn]] static void exit_with_running_engines() {
    FakeClock::gate(true);
    if (!initialize(Engine::Base) || !initialize(Engine::Rasp)) _exit(2);
    snprintf(g_savePathsBeforeExit[0], sizeof g_savePathsBeforeExit[0], "%s",
             BaseEngine::GetInstance()->m_logSavePath.c_str());
    snprintf(g_savePathsBeforeExit[1], sizeof g_savePathsBeforeExit[1], "%s",
             RaspEngine::GetInstance()->m_modelSavePath.c_str());
    g_checkAtExit = true;
    std::exit(0);
}

TEST_F(EngineTest, RunningEnginesKeepTheirLocksQueuesAndTextsThroughProcessExit) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exit_with_running_engines(), ::testing::ExitedWithCode(0), "");
}
