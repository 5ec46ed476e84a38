// The timing thread: countdowns counted in passes of the (fake) 3-second
// sleep, what each firing asks of the library and what goes to the manager.
#include "engine_test_env.h"
#include "log_capture.h"
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
    // Starts the engine with its timing thread parked in the sleep of pass 1.
    void start() {
        FakeClock::gate(true);
        ASSERT_TRUE(initialize(GetParam().engine));
        ASSERT_TRUE(waitUntil([] { return FakeClock::sleepsEntered() >= 1; }));
    }
    // Runs the passes up to and including `pass`, then parks the thread again.
    void runThrough(int pass) {
        FakeClock::allowSleeps(pass + 1 - FakeClock::sleepsEntered());
        ASSERT_TRUE(waitUntil([pass] { return FakeClock::sleepsEntered() >= pass + 1; }));
    }
    int count(const char* op) { return Library::instance().count(GetParam().engine, op); }
    size_t uploads(int type) { return module_fakes::uploads(type).size(); }
};

TEST_P(TimingTest, CountdownsFireAtPassesTwentyFortyAndTwelveHundred) {
    const Engine e = GetParam().engine;
    Library::instance().setDefaultText(e, "getModelStatus", "{\"status\":1}");
    Library::instance().setDefaultText(e, "getModelData", "{\"model\":1}");
    Library::instance().queueText(e, "getChangedModel", "web");
    Library::instance().queueText(e, "getModelData", "ERROR");
    start();
    EXPECT_EQ(1, count("getModelStatus"));

    runThrough(19);
    EXPECT_EQ(0, count("elapseTime"));
    runThrough(20);
    ASSERT_EQ(1, count("elapseTime"));
    EXPECT_EQ(60, Library::instance().calls(e, "elapseTime")[0].first);
    EXPECT_EQ(0, count("saveModel"));

    runThrough(39);
    EXPECT_EQ(0, count("saveModel"));
    runThrough(40);
    EXPECT_EQ(2, count("elapseTime"));
    ASSERT_EQ(1, count("saveModel"));
    ASSERT_EQ(1, count("getModelData"));
    EXPECT_EQ("web", Library::instance().calls(e, "getModelData")[0].text);
    // The changed model goes out whatever its text.
    EXPECT_EQ("ERROR", module_fakes::uploads(GetParam().modelReport).at(0).text);

    runThrough(1199);
    EXPECT_EQ(1, count("getModelStatus"));
    EXPECT_EQ(29, count("saveModel"));
    EXPECT_EQ(1, count("getModelData")) << "an empty changed-model name asks for nothing";
    runThrough(1200);
    EXPECT_EQ(30, count("saveModel"));
    EXPECT_EQ(60, count("elapseTime"));
    // In one pass the five run in their order; the hourly ones ask for all models.
    std::vector<std::string> ops = Library::instance().opSequence(e);
    EXPECT_EQ(
        (std::vector<std::string>{"saveModel", "elapseTime", "getChangedModel", "getModelStatus", "getModelData"}),
        std::vector<std::string>(ops.end() - 5, ops.end()));
    EXPECT_EQ("", Library::instance().calls(e, "getModelStatus")[1].text);
    EXPECT_EQ("", Library::instance().calls(e, "getModelData")[1].text);
    EXPECT_EQ(2u, uploads(GetParam().statusReport));
    EXPECT_EQ(2u, uploads(GetParam().modelReport));
}

TEST_P(TimingTest, FirstStatusIsSentUnlessErrorOrEmpty) {
    const struct {
        const char* text;
        bool sent;
    } cases[] = {{"{}", false}, {"ERROR", false}, {"{\"learning\":[]}", true}};
    for (const auto& c : cases) {
        Library::instance().queueText(GetParam().engine, "getModelStatus", c.text);
        LogCapture log;
        start();
        EXPECT_TRUE(log.contains(std::string("start engine, model status : ") + c.text, 3));
        EXPECT_EQ(c.sent ? 1u : 0u, uploads(GetParam().statusReport)) << c.text;
        TearDown();
        SetUp();  // a fresh start for the next text
    }
}

// "ERROR" and "{}" hold a status back; only "{}" holds the models' data back.
TEST_P(TimingTest, HourlyReportsLeaveOutWhatTheLibraryCouldNotTell) {
    const struct {
        const char* text;
        size_t dataSent;
    } cases[] = {{"{}", 0}, {"ERROR", 1}};
    for (const auto& c : cases) {
        Library::instance().setDefaultText(GetParam().engine, "getModelStatus", c.text);
        Library::instance().setDefaultText(GetParam().engine, "getModelData", c.text);
        start();
        runThrough(1200);
        ASSERT_EQ(2, count("getModelStatus")) << c.text;
        EXPECT_EQ(0u, uploads(GetParam().statusReport)) << c.text;
        EXPECT_EQ(c.dataSent, uploads(GetParam().modelReport)) << c.text;
        TearDown();
        SetUp();
    }
}

INSTANTIATE_TEST_SUITE_P(Engines, TimingTest, ::testing::ValuesIn(kKinds),
                         [](const ::testing::TestParamInfo<Kind>& info) { return std::string(info.param.name); });
