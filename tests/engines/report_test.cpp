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
    int oprType;
    const char* model;
    const char* status;
    const char* data;
    int result;
    bool dataSent;
    bool statusSent;
};

const ParseRow kParseRows[] = {
    {"EmptyName", USR_OPR_QUERY, "", "{\"s\":1}", "{}", 0, false, false},
    {"OtherTypeSendsStatusOnly", USR_OPR_SWITCH, "web", "{\"s\":1}", "{\"d\":1}", 1, false, true},
    {"QuerySendsModelEvenWhenStatusEmpty", USR_OPR_QUERY, "web", "{}", "{\"d\":1}", 1, true, false},
    {"QuerySendsModelTextUntestedButNoErrorStatus", USR_OPR_QUERY, "web", "ERROR", "{}", 1, true, false},
};

// Both engines with their timing threads parked, the library's records cleared.
class StartedEnginesTest : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        FakeClock::gate(true);
        ASSERT_TRUE(initialize(Engine::Base));
        ASSERT_TRUE(initialize(Engine::Rasp));
        ASSERT_TRUE(wait_calls(Engine::Base, "getModelStatus", 1));
        ASSERT_TRUE(wait_calls(Engine::Rasp, "getModelStatus", 1));
        Library::instance().reset();
        recorders::reset();
    }
};

}  // namespace

class ParseInputTest : public StartedEnginesTest, public ::testing::WithParamInterface<std::tuple<ParseRow, Engine>> {};

TEST_P(ParseInputTest, ReadsTheModelBackAndReports) {
    const ParseRow& row = std::get<0>(GetParam());
    const Engine engine = std::get<1>(GetParam());
    const bool base = engine == Engine::Base;
    Library::instance().queueText(engine, "getModelStatus", row.status);
    Library::instance().queueText(engine, "getModelData", row.data);

    _USR_INPUT input;
    input.oprType = row.oprType;
    input.modelName = row.model;
    EXPECT_EQ(row.result,
              base ? BaseEngine::GetInstance()->parseInput(&input) : RaspEngine::GetInstance()->parseInput(&input));
    std::vector<fake_model::Call> status = Library::instance().calls(engine, "getModelStatus");
    ASSERT_EQ(row.result == 0 ? 0u : 1u, status.size());
    if (row.result != 0) {
        EXPECT_EQ(row.model, status[0].text);
    }
    std::vector<std::pair<std::string, int>> expected, uploaded;
    if (row.dataSent) {
        expected.emplace_back(row.data, base ? WL_REPORT_MODEL : WL_REPORT_RASP_MODEL);
    }
    if (row.statusSent) {
        expected.emplace_back(row.status, base ? WL_REPORT_LEARN_STATUS : WL_REPORT_RASP_LEARN_STATUS);
    }
    for (const module_fakes::ReportUpload& upload : module_fakes::uploads()) {
        uploaded.emplace_back(upload.text, upload.type);
    }
    EXPECT_EQ(expected, uploaded);
}

INSTANTIATE_TEST_SUITE_P(Rows, ParseInputTest,
                         ::testing::Combine(::testing::ValuesIn(kParseRows),
                                            ::testing::Values(Engine::Base, Engine::Rasp)),
                         [](const ::testing::TestParamInfo<std::tuple<ParseRow, Engine>>& info) {
                             return std::string(std::get<0>(info.param).name) +
                                    (std::get<1>(info.param) == Engine::Base ? "Base" : "Rasp");
                         });

TEST_F(StartedEnginesTest, AlarmsAreFedBackInOrderThenTheModelIsSavedOnce) {
    EXPECT_TRUE(
        BaseEngine::GetInstance()->dealAlarmEvent("[{\"event_id\":\"FILE_CREATION\",\"model_name\":\"web\"},"
                                                  "{\"event_id\":\"NO_SUCH_EVENT\",\"model_name\":\"web\"},"
                                                  "{\"event_id\":\"FILE_DELETION\",\"model_name\":\"web\"}]"));
    EXPECT_TRUE(RaspEngine::GetInstance()->dealAlarmEvent(
        "[{\"action\":\"mysql\",\"model_name\":\"shop\",\"sql_command\":\"select 1\",\"url\":\"/cart\"},"
        "{\"action\":\"read\",\"model_name\":\"shop\",\"file_name\":\"/etc/x\",\"url\":\"/file\"}]"));
    const std::vector<std::string> order{"feedbackAlarm", "feedbackAlarm", "saveModel"};
    EXPECT_EQ(order, Library::instance().opSequence(Engine::Base));
    EXPECT_EQ(order, Library::instance().opSequence(Engine::Rasp));
    std::vector<fake_model::Call> host = Library::instance().calls(Engine::Base, "feedbackAlarm");
    EXPECT_EQ(6, host[0].eventType);
    EXPECT_EQ(8, host[1].eventType);
    std::vector<fake_model::Call> rasp = Library::instance().calls(Engine::Rasp, "feedbackAlarm");
    EXPECT_EQ("/cart", rasp[0].eventTag);
    EXPECT_EQ("/file", rasp[1].eventTag);
    EXPECT_EQ(BaseEngine::GetInstance()->m_modelSavePath, Library::instance().calls(Engine::Base, "saveModel")[0].text);
    EXPECT_EQ(RaspEngine::GetInstance()->m_modelSavePath, Library::instance().calls(Engine::Rasp, "saveModel")[0].text);
    EXPECT_TRUE(module_fakes::uploads().empty()) << "feedback uploads nothing";
}

TEST_F(StartedEnginesTest, EmptyFeedbackIsRefusedUnreadableFeedbackStillSaves) {
    EXPECT_FALSE(BaseEngine::GetInstance()->dealAlarmEvent(""));
    EXPECT_FALSE(RaspEngine::GetInstance()->dealAlarmEvent(""));
    EXPECT_TRUE(Library::instance().calls(Engine::Base, "").empty());
    EXPECT_TRUE(Library::instance().calls(Engine::Rasp, "").empty());
    EXPECT_TRUE(BaseEngine::GetInstance()->dealAlarmEvent("no alarms"));
    EXPECT_TRUE(RaspEngine::GetInstance()->dealAlarmEvent("no alarms"));
    EXPECT_EQ(std::vector<std::string>{"saveModel"}, Library::instance().opSequence(Engine::Base));
    EXPECT_EQ(std::vector<std::string>{"saveModel"}, Library::instance().opSequence(Engine::Rasp));
}
