// Start, failed start, stop and restart of both engines.
#include <dirent.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <set>

#include "base.h"
#include "engine_test_env.h"
#include "event_queues.h"
#include "log_capture.h"
#include "rasp.h"

using fake_model::Engine;
using fake_model::FactoryMode;
using fake_model::Library;

namespace {

std::set<std::string> thread_names() {
    std::set<std::string> names;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) {
        return names;
    }
    while (struct dirent* entry = readdir(dir)) {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        if (std::getline(comm, name)) {
            names.insert(name);
        }
    }
    closedir(dir);
    return names;
}

bool same_path(const std::string& a, const std::string& b) {
    std::error_code error;
    return std::filesystem::equivalent(a, b, error);
}

}  // namespace

class LifecycleTest : public EngineTest {};

TEST_F(LifecycleTest, BaseStartsInOrderWithItsThreadsAndDirectories) {
    LogCapture log;
    m_install->writeFile("config/baseConfig.ini", "[base]\n");
    startBase();
    BaseEngine* engine = BaseEngine::GetInstance();

    ASSERT_TRUE(Library::instance().waitForCount(Engine::Base, "getModelStatus", 1));
    std::vector<std::string> ops = Library::instance().opSequence(Engine::Base);
    ASSERT_GE(ops.size(), 4u);
    EXPECT_EQ((std::vector<std::string>{"getBaseInterface", "setConfig", "loadModel", "getModelStatus"}),
              std::vector<std::string>(ops.begin(), ops.begin() + 4));
    EXPECT_TRUE(same_path(Library::instance().calls(Engine::Base, "setConfig")[0].text,
                          m_install->path("config/baseConfig.ini")));
    EXPECT_TRUE(same_path(Library::instance().calls(Engine::Base, "loadModel")[0].text,
                          m_install->path("var/base/model")));
    EXPECT_TRUE(same_path(engine->m_modelSavePath, m_install->path("var/base/model")));
    EXPECT_TRUE(same_path(engine->m_logSavePath, m_install->path("var/base/originLog")));
    EXPECT_TRUE(std::filesystem::is_directory(m_install->path("var/base/originLog")));
    EXPECT_TRUE(engine->m_isRunning.load());
    EXPECT_TRUE(engine->m_localIps.count("127.0.0.1"));

    EXPECT_TRUE(waitUntil([] {
        std::set<std::string> names = thread_names();
        return names.count("base_work") && names.count("base_work_delay") && names.count("base_save");
    })) << "engine threads are not named as expected";
    EXPECT_TRUE(log.contains("Load empty model success.", 3));
    EXPECT_TRUE(log.contains("Initialize suc", 3));
    EXPECT_TRUE(log.contains("get local ip : 127.0.0.1", 3));
    EXPECT_FALSE(log.contains("config not exists"));
}

TEST_F(LifecycleTest, RaspStartsWithItsOwnDirectoriesAndTwoThreads) {
    startRasp();
    RaspEngine* engine = RaspEngine::GetInstance();
    EXPECT_TRUE(same_path(engine->m_modelSavePath, m_install->path("var/base/raspModel")));
    EXPECT_TRUE(same_path(engine->m_logSavePath, m_install->path("var/base/raspOriginLog")));
    EXPECT_TRUE(waitUntil([] {
        std::set<std::string> names = thread_names();
        return names.count("rasp_work") && names.count("rasp_save");
    }));
    EXPECT_EQ(nullptr, BaseEngine::GetInstance()->m_baseEngine) << "the engines start independently";
}

TEST_F(LifecycleTest, MissingConfigurationIsLoggedAsErrorButTheEngineRuns) {
    LogCapture log;
    startBase();
    EXPECT_TRUE(log.contains("config not exists", 1));
    EXPECT_EQ(0, Library::instance().count(Engine::Base, "setConfig"));
    EXPECT_EQ(1, Library::instance().count(Engine::Base, "loadModel"));
}

struct StartFailure {
    const char* name;
    std::function<void(Engine, const TempInstall&)> arrange;
    const char* baseMessage;
    const char* raspMessage;
    bool objectMade;  // the library object existed, so the stop path ran
};

class StartFailureTest : public EngineTest, public ::testing::WithParamInterface<std::tuple<StartFailure, Engine>> {};

const StartFailure kStartFailures[] = {
    {"FactoryThrows", [](Engine e, const TempInstall&) { Library::instance().setFactoryMode(e, FactoryMode::Throw); },
     "obEngine.getBaseInterface error", "get raspInterface error", false},
    {"FactoryNull", [](Engine e, const TempInstall&) { Library::instance().setFactoryMode(e, FactoryMode::Null); },
     "m_baseEngine is null", "m_raspEngine is null", false},
    {"SetConfigFails",
     [](Engine e, const TempInstall& install) {
         install.writeFile("config/baseConfig.ini", "");
         Library::instance().queueResult(e, "setConfig", -1);
     },
     "set config error", "set config error", true},
    {"ModelDirBlocked",
     [](Engine e, const TempInstall& install) {
         install.writeFile(e == Engine::Base ? "var/base/model" : "var/base/raspModel", "a file");
     },
     "load model path error", "load model path error", true},
    {"LoadModelFails", [](Engine e, const TempInstall&) { Library::instance().queueResult(e, "loadModel", -1); },
     "Empty model loaded failed!", "Empty model loaded failed!", true},
    {"OriginLogDirBlocked",
     [](Engine e, const TempInstall& install) {
         install.writeFile(e == Engine::Base ? "var/base/originLog" : "var/base/raspOriginLog", "a file");
     },
     "create originLog save path error", "create originLog save path error", true},
};

TEST_P(StartFailureTest, FailsWithItsMessageCleansUpAndCanStartAgain) {
    const StartFailure& failure = std::get<0>(GetParam());
    const Engine kind = std::get<1>(GetParam());
    const bool base = kind == Engine::Base;
    LogCapture log;
    // Something queued before the start shows whether the stop path ran.
    if (base) {
        queue_base_event(make_base_event(6, 1));
    } else {
        queue_rasp_text("{}");
    }
    failure.arrange(kind, *m_install);

    bool started = base ? BaseEngine::GetInstance()->Initialize() : RaspEngine::GetInstance()->Initialize();
    EXPECT_FALSE(started);
    EXPECT_TRUE(log.contains(base ? failure.baseMessage : failure.raspMessage, 1)) << log.dump();
    EXPECT_TRUE(log.contains(base ? "baseEngine init failed!0x84ce0001" : "RaspEngine init failed!0x84ce0001", 1))
        << log.dump();
    EXPECT_EQ(0, Library::instance().liveObjects(kind));
    EXPECT_EQ(failure.objectMade ? 1 : 0, Library::instance().count(kind, "destroy"));
    if (base) {
        EXPECT_EQ(nullptr, BaseEngine::GetInstance()->m_baseEngine);
        EXPECT_FALSE(BaseEngine::GetInstance()->m_isRunning.load());
        EXPECT_EQ(failure.objectMade ? 0u : 1u, base_queue_size());
    } else {
        EXPECT_EQ(nullptr, RaspEngine::GetInstance()->m_raspEngine);
        EXPECT_EQ(failure.objectMade ? 0u : 1u, rasp_queue_size());
    }
    EXPECT_EQ(0, Library::instance().count(kind, "getModelStatus")) << "no thread may have started";

    // The cause removed, the whole sequence runs again.
    Library::instance().reset();
    std::error_code ignored;
    std::filesystem::remove(m_install->path("var/base/model"), ignored);
    std::filesystem::remove(m_install->path("var/base/raspModel"), ignored);
    std::filesystem::remove(m_install->path("var/base/originLog"), ignored);
    std::filesystem::remove(m_install->path("var/base/raspOriginLog"), ignored);
    EXPECT_TRUE(base ? BaseEngine::GetInstance()->Initialize() : RaspEngine::GetInstance()->Initialize());
    EXPECT_EQ(1, Library::instance().count(kind, "loadModel"));
    EXPECT_TRUE(Library::instance().waitForCount(kind, "getModelStatus", 1));
}

INSTANTIATE_TEST_SUITE_P(Engines, StartFailureTest,
                         ::testing::Combine(::testing::ValuesIn(kStartFailures),
                                            ::testing::Values(Engine::Base, Engine::Rasp)),
                         [](const ::testing::TestParamInfo<std::tuple<StartFailure, Engine>>& info) {
                             return std::string(std::get<0>(info.param).name) +
                                    (std::get<1>(info.param) == Engine::Base ? "Base" : "Rasp");
                         });

TEST_F(LifecycleTest, FailedLoadLeavesTheModelPathSet) {
    Library::instance().queueResult(Engine::Base, "loadModel", -1);
    EXPECT_FALSE(BaseEngine::GetInstance()->Initialize());
    EXPECT_TRUE(same_path(BaseEngine::GetInstance()->m_modelSavePath, m_install->path("var/base/model")));
}

TEST_F(LifecycleTest, SecondInitializeIsASuccessThatStartsNothing) {
    startBase();
    startRasp();
    startBase();
    startRasp();
    EXPECT_EQ(1, Library::instance().count(Engine::Base, "getBaseInterface"));
    EXPECT_EQ(1, Library::instance().count(Engine::Rasp, "getRaspInterface"));
    EXPECT_EQ(1, Library::instance().liveObjects(Engine::Base));
    EXPECT_EQ(1, Library::instance().liveObjects(Engine::Rasp));
}

TEST_F(LifecycleTest, UninitializeTwiceThenStartAgainWithANewObject) {
    startBase();
    startRasp();
    BaseEngine::GetInstance()->Uninitialize();
    RaspEngine::GetInstance()->Uninitialize();
    BaseEngine::GetInstance()->Uninitialize();
    RaspEngine::GetInstance()->Uninitialize();
    EXPECT_EQ(1, Library::instance().count(Engine::Base, "destroy"));
    EXPECT_EQ(1, Library::instance().count(Engine::Rasp, "destroy"));
    EXPECT_FALSE(BaseEngine::GetInstance()->m_workThreadsStarted);
    EXPECT_FALSE(BaseEngine::GetInstance()->m_saveThreadStarted);

    startBase();
    startRasp();
    queue_base_event(make_base_event(6, 42));
    queue_rasp_text("{}");
    EXPECT_TRUE(Library::instance().waitForCount(Engine::Base, "processEvent", 1));
    EXPECT_TRUE(Library::instance().waitForCount(Engine::Rasp, "processEvent", 1));
    int stopped = Library::instance().calls(Engine::Base, "destroy")[0].object;
    EXPECT_EQ(stopped + 1, Library::instance().calls(Engine::Base, "processEvent")[0].object)
        << "the restart works on a new library object";
}
