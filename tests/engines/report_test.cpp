// The command read-back (parseInput) and alarm feedback (dealAlarmEvent).
#include "base.h"
#include "engine_test_env.h"
#include "rasp.h"
#include "recorders.h"
#include "whitelist_upload.h"

using fake_model::Engine;
using fake_model::Library;

namespace {

struct ParseRow {
    const char* name;
    bool nullInput;
    int oprType;
    const char* model;
    const char* status;
    const char* data;
    int result;
    bool dataSent;
    bool statusSent;
};

const ParseRow kParseRows[] = {
    {"NullRecord", true, 0, "m", "{\"s\":1}", "{}", 0, false, false},
    {"EmptyName", false, 2, "", "{\"s\":1}", "{}", 0, false, false},
    {"StartSendsStatus", false, 0, "web", "{\"s\":1}", "{}", 1, false, true},
    {"QuerySendsModelEvenWhenStatusEmpty", false, 2, "web", "{}", "{\"d\":1}", 1, true, false},
    {"QuerySendsModelTextUntested", false, 2, "web", "ERROR", "{}", 1, true, false},
    {"DeleteWithErrorSendsNothing", false, 8, "web", "ERROR", "{}", 1, false, false},
    {"UnknownTypeSendsStatusOnly", false, 99, "web", "{\"s\":2}", "{\"d\":2}", 1, false, true},
};

struct ReportKind {
    const char* name;
    Engine engine;
    int modelReport;
    int statusReport;
};

}  // namespace

class ParseInputTest : public EngineTest, public ::testing::WithParamInterface<std::tuple<ParseRow, ReportKind>> {};

TEST_P(ParseInputTest, ReadsTheModelBackAndReports) {
    const ParseRow& row = std::get<0>(GetParam());
    const ReportKind& kind = std::get<1>(GetParam());
    FakeClock::gate(true);
    if (kind.engine == Engine::Base) {
        startBase();
    } else {
        startRasp();
    }
    ASSERT_TRUE(Library::instance().waitForCount(kind.engine, "getModelStatus", 1));
    Library::instance().reset();
    recorders::reset();
    Library::instance().queueText(kind.engine, "getModelStatus", row.status);
    Library::instance().queueText(kind.engine, "getModelData", row.data);

    _USR_INPUT input;
    input.oprType = row.oprType;
    input.modelName = row.model;
    _USR_INPUT* argument = row.nullInput ? nullptr : &input;
    int result = kind.engine == Engine::Base ? BaseEngine::GetInstance()->parseInput(argument)
                                             : RaspEngine::GetInstance()->parseInput(argument);
    EXPECT_EQ(row.result, result);
    if (row.result == 0) {
        EXPECT_TRUE(Library::instance().calls().empty());
    } else {
        std::vector<fake_model::Call> status = Library::instance().calls(kind.engine, "getModelStatus");
        ASSERT_EQ(1u, status.size());
        EXPECT_EQ(row.model, status[0].text);
    }
    std::vector<recorders::Upload> uploads = recorders::uploads();
    std::vector<recorders::Upload> expected;
    if (row.dataSent) {
        expected.push_back({row.data, kind.modelReport, {}});
    }
    if (row.statusSent) {
        expected.push_back({row.status, kind.statusReport, {}});
    }
    ASSERT_EQ(expected.size(), uploads.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i].text, uploads[i].text);
        EXPECT_EQ(expected[i].type, uploads[i].type);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ParseInputTest,
    ::testing::Combine(::testing::ValuesIn(kParseRows),
                       ::testing::Values(ReportKind{"Base", Engine::Base, WL_REPORT_MODEL, WL_REPORT_LEARN_STATUS},
                                         ReportKind{"Rasp", Engine::Rasp, WL_REPORT_RASP_MODEL,
                                                    WL_REPORT_RASP_LEARN_STATUS})),
    [](const ::testing::TestParamInfo<std::tuple<ParseRow, ReportKind>>& info) {
        return std::string(std::get<0>(info.param).name) + std::get<1>(info.param).name;
    });

class AlarmFeedbackTest : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        FakeClock::gate(true);
        startBase();
        startRasp();
        ASSERT_TRUE(Library::instance().waitForCount(Engine::Base, "getModelStatus", 1));
        ASSERT_TRUE(Library::instance().waitForCount(Engine::Rasp, "getModelStatus", 1));
        Library::instance().reset();
    }
};

TEST_F(AlarmFeedbackTest, EmptyTextIsRefusedWithoutTouchingTheLibrary) {
    EXPECT_FALSE(BaseEngine::GetInstance()->dealAlarmEvent(""));
    EXPECT_FALSE(RaspEngine::GetInstance()->dealAlarmEvent(""));
    EXPECT_TRUE(Library::instance().calls().empty());
}

TEST_F(AlarmFeedbackTest, HostAlarmsAreFedBackInOrderThenSavedOnce) {
    EXPECT_TRUE(BaseEngine::GetInstance()->dealAlarmEvent(
        "[{\"event_id\":\"FILE_CREATION\",\"model_name\":\"web\"},"
        "{\"event_id\":\"NO_SUCH_EVENT\",\"model_name\":\"web\"},"
        "{\"event_id\":\"FILE_DELETION\",\"model_name\":\"web\"}]"));
    std::vector<fake_model::Call> calls = Library::instance().calls();
    ASSERT_EQ(3u, calls.size());
    EXPECT_EQ("feedbackAlarm", calls[0].op);
    EXPECT_EQ(6, calls[0].eventType);
    EXPECT_EQ("feedbackAlarm", calls[1].op);
    EXPECT_EQ(8, calls[1].eventType);
    EXPECT_EQ("saveModel", calls[2].op);
    EXPECT_EQ(BaseEngine::GetInstance()->m_modelSavePath, calls[2].text);
    EXPECT_TRUE(recorders::uploads().empty()) << "feedback uploads nothing";
}

TEST_F(AlarmFeedbackTest, TextWithoutAlarmsStillSavesTheModels) {
    EXPECT_TRUE(BaseEngine::GetInstance()->dealAlarmEvent("not a list"));
    EXPECT_TRUE(RaspEngine::GetInstance()->dealAlarmEvent("{}"));
    EXPECT_EQ((std::vector<std::string>{"saveModel"}), Library::instance().opSequence(Engine::Base));
    EXPECT_EQ((std::vector<std::string>{"saveModel"}), Library::instance().opSequence(Engine::Rasp));
}

TEST_F(AlarmFeedbackTest, RaspAlarmsAreFedBackThenSaved) {
    EXPECT_TRUE(RaspEngine::GetInstance()->dealAlarmEvent(
        "[{\"action\":\"mysql\",\"model_name\":\"shop\",\"sql_command\":\"select 1\",\"url\":\"/cart\"},"
        "{\"action\":\"read\",\"model_name\":\"shop\",\"file_name\":\"/etc/x\",\"url\":\"/file\"}]"));
    std::vector<fake_model::Call> calls = Library::instance().calls();
    ASSERT_EQ(3u, calls.size());
    EXPECT_EQ("feedbackAlarm", calls[0].op);
    EXPECT_EQ("/cart", calls[0].eventTag);
    EXPECT_EQ("/file", calls[1].eventTag);
    EXPECT_EQ("saveModel", calls[2].op);
    EXPECT_EQ(RaspEngine::GetInstance()->m_modelSavePath, calls[2].text);
}
