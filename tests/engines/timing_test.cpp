// The timing thread: countdowns counted in passes of the (fake) 3-second
// sleep, what each firing asks of the library and what goes to the manager.
#include "base.h"
#include "engine_test_env.h"
#include "log_capture.h"
#include "rasp.h"
#include "recorders.h"
#include "whitelist_upload.h"

using fake_model::Engine;
using fake_model::Library;

namespace {

struct Kind {
    const char* name;
    Engine engine;
    int modelReport;
    int statusReport;
};

const Kind kKinds[] = {{"Base", Engine::Base, WL_REPORT_MODEL, WL_REPORT_LEARN_STATUS},
                       {"Rasp", Engine::Rasp, WL_REPORT_RASP_MODEL, WL_REPORT_RASP_LEARN_STATUS}};

}  // namespace

class TimingTest : public EngineTest, public ::testing::WithParamInterface<Kind> {
protected:
    void start() {
        FakeClock::gate(true);
        if (GetParam().engine == Engine::Base) {
            startBase();
        } else {
            startRasp();
        }
        // The thread is parked in the sleep of pass 1.
        ASSERT_TRUE(FakeClock::waitSleepsEntered(1));
    }
    // Runs the passes up to and including `pass`, then parks the thread again.
    void runThrough(int pass) {
        int done = FakeClock::sleepsEntered() - 1;
        FakeClock::allowSleeps(pass - done);
        ASSERT_TRUE(FakeClock::waitSleepsEntered(pass + 1));
    }
    int count(const char* op) { return Library::instance().count(GetParam().engine, op); }
    std::string modelPath() {
        return GetParam().engine == Engine::Base ? BaseEngine::GetInstance()->m_modelSavePath
                                                 : RaspEngine::GetInstance()->m_modelSavePath;
    }
};

TEST_P(TimingTest, CountdownsFireAtPassesTwentyFortyAndTwelveHundred) {
    const Engine e = GetParam().engine;
    Library::instance().setDefaultText(e, "getModelStatus", "{\"status\":1}");
    Library::instance().setDefaultText(e, "getModelData", "{\"model\":1}");
    start();
    EXPECT_EQ(1, count("getModelStatus"));

    runThrough(19);
    EXPECT_EQ(0, count("elapseTime"));
    runThrough(20);
    ASSERT_EQ(1, count("elapseTime"));
    fake_model::Call tick = Library::instance().calls(e, "elapseTime")[0];
    EXPECT_EQ(60, tick.first);
    EXPECT_EQ(0, tick.second);
    EXPECT_EQ(0, count("saveModel"));
    EXPECT_EQ(0, count("getChangedModel"));

    runThrough(39);
    EXPECT_EQ(0, count("saveModel"));
    runThrough(40);
    EXPECT_EQ(2, count("elapseTime"));
    ASSERT_EQ(1, count("saveModel"));
    EXPECT_EQ(modelPath(), Library::instance().calls(e, "saveModel")[0].text);
    EXPECT_EQ(1, count("getChangedModel"));
    EXPECT_EQ(0, count("getModelData")) << "an empty changed-model name asks for nothing";

    runThrough(1199);
    EXPECT_EQ(1, count("getModelStatus"));
    EXPECT_EQ(29, count("saveModel"));
    EXPECT_EQ(59, count("elapseTime"));
    runThrough(1200);
    EXPECT_EQ(30, count("saveModel"));
    EXPECT_EQ(60, count("elapseTime"));
    EXPECT_EQ(30, count("getChangedModel"));
    ASSERT_EQ(2, count("getModelStatus"));
    EXPECT_EQ("", Library::instance().calls(e, "getModelStatus")[1].text);
    ASSERT_EQ(1, count("getModelData"));
    EXPECT_EQ("", Library::instance().calls(e, "getModelData")[0].text);
    // In one pass the four run in their order, each under its own lock.
    std::vector<std::string> ops = Library::instance().opSequence(e);
    std::vector<std::string> tail(ops.end() - 5, ops.end());
    EXPECT_EQ((std::vector<std::string>{"saveModel", "elapseTime", "getChangedModel", "getModelStatus", "getModelData"}),
              tail);
    EXPECT_EQ(2u, recorders::uploadsOfType(GetParam().statusReport).size());
    EXPECT_EQ(1u, recorders::uploadsOfType(GetParam().modelReport).size());
}

TEST_P(TimingTest, ChangedModelIsPublishedWithoutLookingAtTheText) {
    const Engine e = GetParam().engine;
    Library::instance().queueText(e, "getChangedModel", "web");
    Library::instance().queueText(e, "getModelData", "ERROR");
    start();
    runThrough(40);
    std::vector<fake_model::Call> data = Library::instance().calls(e, "getModelData");
    ASSERT_EQ(1u, data.size());
    EXPECT_EQ("web", data[0].text);
    std::vector<recorders::Upload> models = recorders::uploadsOfType(GetParam().modelReport);
    ASSERT_EQ(1u, models.size());
    EXPECT_EQ("ERROR", models[0].text);
}

struct HourlyCase {
    const char* status;
    const char* data;
    bool statusSent;
    bool dataSent;
};

TEST_P(TimingTest, HourlyReportFiltersStatusAndDataDifferently) {
    const Engine e = GetParam().engine;
    const HourlyCase cases[] = {
        {"{}", "{}", false, false},
        {"ERROR", "ERROR", false, true},  // an ERROR model text goes out
        {"{\"s\":1}", "{\"d\":1}", true, true},
    };
    Library::instance().queueText(e, "getModelStatus", "{}");  // thread start
    for (const HourlyCase& c : cases) {
        Library::instance().queueText(e, "getModelStatus", c.status);
        Library::instance().queueText(e, "getModelData", c.data);
    }
    start();
    int pass = 0;
    for (const HourlyCase& c : cases) {
        size_t statusBefore = recorders::uploadsOfType(GetParam().statusReport).size();
        size_t dataBefore = recorders::uploadsOfType(GetParam().modelReport).size();
        pass += 1200;
        runThrough(pass);
        std::vector<recorders::Upload> status = recorders::uploadsOfType(GetParam().statusReport);
        std::vector<recorders::Upload> data = recorders::uploadsOfType(GetParam().modelReport);
        EXPECT_EQ(statusBefore + (c.statusSent ? 1 : 0), status.size()) << c.status;
        EXPECT_EQ(dataBefore + (c.dataSent ? 1 : 0), data.size()) << c.data;
        if (c.statusSent) {
            EXPECT_EQ(c.status, status.back().text);
        }
        if (c.dataSent) {
            EXPECT_EQ(c.data, data.back().text);
        }
    }
}

TEST_P(TimingTest, FirstStatusIsSentUnlessErrorOrEmpty) {
    const Engine e = GetParam().engine;
    const struct {
        const char* text;
        bool sent;
    } cases[] = {{"{}", false}, {"ERROR", false}, {"{\"learning\":[]}", true}};
    for (const auto& c : cases) {
        recorders::reset();
        Library::instance().reset();
        Library::instance().queueText(e, "getModelStatus", c.text);
        LogCapture log;
        start();
        EXPECT_TRUE(log.contains(std::string("start engine, model status : ") + c.text, 3));
        std::vector<recorders::Upload> sent = recorders::uploadsOfType(GetParam().statusReport);
        EXPECT_EQ(c.sent ? 1u : 0u, sent.size()) << c.text;
        FakeClock::gate(false);
        BaseEngine::GetInstance()->Uninitialize();
        RaspEngine::GetInstance()->Uninitialize();
        EXPECT_TRUE(log.contains("exit update model timing thread", 4));
        FakeClock::install();
    }
}

TEST_P(TimingTest, FirstStatusIsAskedWithoutTheEngineLock) {
    orv_mutex_t* lock = GetParam().engine == Engine::Base ? &BaseEngine::GetInstance()->m_engineLock
                                                          : &RaspEngine::GetInstance()->m_engineLock;
    orv_mutex_lock(lock);
    FakeClock::gate(true);
    bool started = GetParam().engine == Engine::Base ? BaseEngine::GetInstance()->Initialize()
                                                     : RaspEngine::GetInstance()->Initialize();
    bool asked = Library::instance().waitForCount(GetParam().engine, "getModelStatus", 1);
    orv_mutex_unlock(lock);
    EXPECT_TRUE(started);
    EXPECT_TRUE(asked);
}

TEST_P(TimingTest, CountdownsStartAfreshAfterARestart) {
    start();
    runThrough(19);
    FakeClock::gate(false);
    BaseEngine::GetInstance()->Uninitialize();
    RaspEngine::GetInstance()->Uninitialize();
    Library::instance().reset();
    FakeClock::install();
    start();
    runThrough(19);
    EXPECT_EQ(0, count("elapseTime")) << "partial countdowns must not survive a stop";
    runThrough(20);
    EXPECT_EQ(1, count("elapseTime"));
}

INSTANTIATE_TEST_SUITE_P(Engines, TimingTest, ::testing::ValuesIn(kKinds),
                         [](const ::testing::TestParamInfo<Kind>& info) { return std::string(info.param.name); });
