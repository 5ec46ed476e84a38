// Alarm feedback: sorting by alarm_source and handing each group over.
#include "models_fixture.h"
#include "whitelist_api.h"

namespace {

using models_double::Engine;
using models_double::engine_calls;
using models_double::script;

class FeedbackTest : public ModelsTest {
protected:
    int feedback(const std::string& list) {
        m_root_json = parse_json(R"({"opr_code":7,"data":{"list":)" + list + "}}");
        return whitelist_base_task_feedback(7, m_root_json.get());
    }
    std::string handed(Engine engine) {
        auto calls = engine_calls(engine, "dealAlarmEvent");
        return calls.empty() ? "<none>" : calls[0].text;
    }
    JsonPtr m_root_json;
};

TEST_F(FeedbackTest, UnusableCommandsAreRefused) {
    EXPECT_EQ(whitelist_base_task_feedback(7, nullptr), 2);
    EXPECT_TRUE(m_log.contains("input msg is NULL", 1));
    for (const char* json : {R"({"opr_code":7})", R"({"data":[]})", R"({"data":{"list":{}}})", R"({"data":{}})"}) {
        JsonPtr root = parse_json(json);
        m_log.clear();
        EXPECT_EQ(whitelist_base_task_feedback(7, root.get()), -1) << json;
        EXPECT_EQ(m_log.count("invalid input data", 1), 1) << json;
    }
    EXPECT_TRUE(engine_calls().empty());
}

TEST_F(FeedbackTest, AlarmsGoByTheirSourceOuterFirst) {
    EXPECT_EQ(feedback(R"([{"alarm_source":0,"id":"in"},{"alarm_source":1,"id":"out"},
                          {"alarm_source":2,"id":"two"},{"alarm_source":-1,"id":"neg"},
                          {"alarm_source":"1","id":"text"},{"id":"none"},"str",7])"),
              0);
    EXPECT_EQ(models_double::engine_sequence(),
              (std::vector<std::string>{"base:dealAlarmEvent", "rasp:dealAlarmEvent"}));
    EXPECT_EQ(handed(Engine::Base),
              R"([{"alarm_source":1,"id":"out"},{"alarm_source":2,"id":"two"},{"alarm_source":-1,"id":"neg"}])");
    EXPECT_EQ(handed(Engine::Rasp),
              R"([{"alarm_source":0,"id":"in"},{"alarm_source":2,"id":"two"},{"alarm_source":-1,"id":"neg"}])");
    EXPECT_EQ(m_log.count("invalid input data", 1), 4);
    EXPECT_TRUE(m_log.contains(std::string("outer msg ") + handed(Engine::Base), 4));
    EXPECT_TRUE(m_log.contains(std::string("inner msg ") + handed(Engine::Rasp), 4));
    // The command's tree is left as it came.
    cJSON* list = cJSON_GetObjectItem(cJSON_GetObjectItem(m_root_json.get(), "data"), "list");
    EXPECT_EQ(cJSON_GetArraySize(list), 8);
}

TEST_F(FeedbackTest, NothingUsableCallsNoEngine) {
    EXPECT_EQ(feedback("[]"), 0);
    EXPECT_EQ(feedback(R"([{"alarm_source":null},3])"), 0);
    EXPECT_EQ(m_log.count("invalid input data", 1), 2);
    EXPECT_TRUE(engine_calls().empty());
}

TEST_F(FeedbackTest, AnEngineThatRefusesMakesTheResultTwo) {
    struct Case {
        std::deque<bool> base;
        std::deque<bool> rasp;
        int result;
        bool outer_message;
        bool inner_message;
    } cases[] = {
        {{true}, {true}, 0, false, false},
        {{false}, {true}, 2, true, false},
        {{true}, {false}, 2, false, true},
        {{false}, {false}, 2, true, true},
    };
    for (const auto& c : cases) {
        models_double::reset_engines();
        m_log.clear();
        script(Engine::Base).alarm_results = c.base;
        script(Engine::Rasp).alarm_results = c.rasp;
        EXPECT_EQ(feedback(R"([{"alarm_source":2}])"), c.result);
        // The inner list goes over even after the outer one failed.
        EXPECT_EQ(engine_calls().size(), 2u);
        EXPECT_EQ(m_log.contains("dealAlarmEvent outer fail", 1), c.outer_message);
        EXPECT_EQ(m_log.contains("dealAlarmEvent inner fail", 1), c.inner_message);
    }
}

}  // namespace
