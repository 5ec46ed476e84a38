// The one parser of model commands, in its two forms.
#include "models_fixture.h"
#include "whitelist_api.h"

namespace {

class ParseTest : public ModelsTest {
protected:
    int parse(const std::string& json, task_input_st& input) {
        JsonPtr root = parse_json(json);
        return whitelist_parse_task_input(root.get(), &input);
    }
};

TEST_F(ParseTest, UnusableCommandsAreRefusedWithTheirCodes) {
    struct Case {
        const char* json;
        int result;
    } cases[] = {
        {R"({"data":{"list":[]}})", -1},
        {R"({"opr_code":"1","data":{"list":[]}})", -1},
        {R"({"opr_code":1})", -1},
        {R"({"opr_code":1,"data":[]})", -1},
        {R"({"opr_code":1,"data":{}})", 2},
        {R"({"opr_code":101,"data":{"list":{}}})", 2},
        {R"({"opr_code":3,"data":{"study_time":5}})", 2},
        {R"({"opr_code":6,"data":{"list":"web"}})", 2},
        {R"({"opr_code":1,"data":{"list":[]}})", 0},
        {R"({"opr_code":2,"data":{"list":[]}})", 0},
    };
    for (const auto& c : cases) {
        task_input_st input;
        m_log.clear();
        EXPECT_EQ(parse(c.json, input), c.result) << c.json;
        if (c.result != 0) {
            EXPECT_EQ(m_log.count("invalid input data", 1), 1) << c.json;
        }
    }
}

TEST_F(ParseTest, StartElementsCarryOverWhatTheyLeaveOut) {
    task_input_st input;
    ASSERT_EQ(parse(R"({"opr_code":1,"data":{"list":[
        {"model_name":"web","app_name":"nginx","process_path":"/usr/sbin/nginx","study_times":70000,
         "alarm":true,"port":[443,80,443]},
        {"model_name":"api","study_times":65536},
        "not an object",
        {"model_name":7,"app_name":null,"alarm":1,"port":[]},
        {"model_name":"neg","alarm":"yes","port":[-1,"22",8080]}
      ]}})",
                    input),
              0);
    EXPECT_EQ(input.opr_code, 1);
    ASSERT_EQ(input.models.size(), 4u);
    const base_init_st& web = input.models[0];
    EXPECT_EQ(web.model_name, "web");
    EXPECT_EQ(web.study_times, 70000);
    EXPECT_TRUE(web.alarm);
    EXPECT_EQ(web.port, (std::set<unsigned long long>{80, 443}));

    const base_init_st& api = input.models[1];
    EXPECT_EQ(api.model_name, "api");
    EXPECT_EQ(api.app_name, "nginx");
    EXPECT_EQ(api.process_path, "/usr/sbin/nginx");
    EXPECT_EQ(api.study_times, 65536);
    EXPECT_TRUE(api.alarm);
    EXPECT_EQ(api.port, (std::set<unsigned long long>{80, 443}));

    // Wrong types keep the previous text; an alarm of 1 is not true; an empty
    // port array empties the set.
    const base_init_st& third = input.models[2];
    EXPECT_EQ(third.model_name, "api");
    EXPECT_EQ(third.app_name, "nginx");
    EXPECT_FALSE(third.alarm);
    EXPECT_TRUE(third.port.empty());

    const base_init_st& neg = input.models[3];
    EXPECT_FALSE(neg.alarm);
    EXPECT_EQ(neg.port, (std::set<unsigned long long>{8080, 0xffffffffffffffffull}));
    EXPECT_TRUE(m_log.contains("add port 443 into set", 3));
    EXPECT_TRUE(m_log.contains("model_name web, study_times 70000, process_path /usr/sbin/nginx", 3));
}

TEST_F(ParseTest, NameFormTakesFlagsAndASortedSetOfNames) {
    task_input_st input;
    ASSERT_EQ(parse(R"({"opr_code":103,"data":{"study_time":65536,"re_study":true,"model_switch":1,
        "list":["web","Web","app",5,null,"web"]}})",
                    input),
              0);
    EXPECT_EQ(input.opr_code, 103);
    EXPECT_EQ(input.study_time, 65536);
    EXPECT_TRUE(input.re_study);
    EXPECT_FALSE(input.model_switch);
    EXPECT_EQ(input.model_names, (std::set<std::string>{"Web", "app", "web"}));
    EXPECT_TRUE(input.models.empty());
    EXPECT_TRUE(m_log.contains("add model name app to set", 3));
    EXPECT_TRUE(m_log.contains("study_time 65536, re_study true, model_switch false", 3));
}

TEST_F(ParseTest, NameFormLeavesAbsentFieldsAsTheyWere) {
    task_input_st input;
    input.study_time = 9;
    input.re_study = true;
    input.model_switch = true;
    ASSERT_EQ(parse(R"({"opr_code":4,"data":{"study_time":"12","list":[]}})", input), 0);
    EXPECT_EQ(input.study_time, 9);
    EXPECT_TRUE(input.re_study);
    EXPECT_TRUE(input.model_switch);
}

}  // namespace
