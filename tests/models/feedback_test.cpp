// Alarm feedback: sorting by alarm_source and handing each group over.
#include "models_fixture.h"
#include "whitelist_api.h"
#include "whitelist_impl.h"

namespace {

using models_double::called;
using models_double::Engine;

class FeedbackTest : public ModelsTest {
protected:
    int feedback(const std::string& list) {
        JsonPtr root = parse_json(R"({"opr_code":7,"data":{"list":)" + list + "}}");
        return whitelist_base_task_feedback(7, root.get());
    }
};

TEST_F(FeedbackTest, AlarmsGoByTheirSourceOuterFirst) {
    EXPECT_EQ(feedback(R"([{"alarm_source":0,"id":"in"},{"alarm_source":1,"id":"out"},
                          {"alarm_source":2,"id":"two"},{"alarm_source":-1,"id":"neg"},
                          {"alarm_source":"1","id":"text"},"str"])"),
              WL_TASK_OK);
    EXPECT_EQ(models_double::engine_sequence(),
              (std::vector<std::string>{"base:dealAlarmEvent", "rasp:dealAlarmEvent"}));
    EXPECT_EQ(called(Engine::Base, "dealAlarmEvent"),
              (std::vector<std::string>{
                  R"([{"alarm_source":1,"id":"out"},{"alarm_source":2,"id":"two"},{"alarm_source":-1,"id":"neg"}])"}));
    EXPECT_EQ(called(Engine::Rasp, "dealAlarmEvent"),
              (std::vector<std::string>{
                  R"([{"alarm_source":0,"id":"in"},{"alarm_source":2,"id":"two"},{"alarm_source":-1,"id":"neg"}])"}));
}

TEST_F(FeedbackTest, AnEngineThatRefusesMakesTheResultTwo) {
    for (Engine refusing : {Engine::Base, Engine::Rasp}) {
        models_double::reset_engines();
        models_double::queue_results(refusing, "dealAlarmEvent", {0});
        EXPECT_EQ(feedback(R"([{"alarm_source":2}])"), WL_TASK_BAD_COMMAND);
        // The inner list goes over even after the outer one failed.
        EXPECT_EQ(models_double::engine_sequence().size(), 2u);
    }
    EXPECT_TRUE(m_log.contains("dealAlarmEvent outer fail", 1));
    EXPECT_TRUE(m_log.contains("dealAlarmEvent inner fail", 1));
}

TEST_F(FeedbackTest, UnusableCommandsAndEmptyListsReachNoEngine) {
    const struct {
        const char* command;  // null: no tree at all
        int result;
    } rows[] = {
        {nullptr, WL_TASK_BAD_COMMAND},
        {R"({"opr_code":7})", WL_TASK_REFUSED},
        {R"({"opr_code":7,"data":[{"list":[]}]})", WL_TASK_REFUSED},
        {R"({"opr_code":7,"data":{"list":{"alarm_source":1}}})", WL_TASK_REFUSED},
        {R"({"opr_code":7,"data":{"list":[]}})", WL_TASK_OK},
        {R"({"opr_code":7,"data":{"list":[7,{"id":1}]}})", WL_TASK_OK},
    };
    for (const auto& row : rows) {
        JsonPtr root = row.command ? parse_json(row.command) : JsonPtr(nullptr, cJSON_Delete);
        EXPECT_EQ(whitelist_base_task_feedback(7, root.get()), row.result) << (row.command ? row.command : "null");
    }
    EXPECT_TRUE(models_double::engine_sequence().empty());
    EXPECT_EQ(m_log.count("input msg is NULL", 1), 1);
    EXPECT_EQ(m_log.count("invalid input data", 1), 5);
}

}  // namespace
