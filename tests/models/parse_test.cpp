// The one parser of model commands, in its two forms.
#include "models_fixture.h"
#include "whitelist_api.h"
#include "whitelist_impl.h"

namespace {

int parse(const std::string& json, task_input_st& input) {
    JsonPtr root = parse_json(json);
    return whitelist_parse_task_input(root.get(), &input);
}

TEST(ParseTest, UnusableCommandsAreRefusedWithTheirCodes) {
    struct Row {
        const char* json;
        int result;
    } rows[] = {
        {R"({"data":{"list":[]}})", WL_TASK_REFUSED},
        {R"({"opr_code":1,"data":[]})", WL_TASK_REFUSED},
        {R"({"opr_code":1,"data":{}})", WL_TASK_BAD_COMMAND},
        {R"({"opr_code":6,"data":{"list":"web"}})", WL_TASK_BAD_COMMAND},
        {R"({"opr_code":2,"data":{"list":[]}})", WL_TASK_OK},
    };
    for (const auto& row : rows) {
        task_input_st input;
        EXPECT_EQ(parse(row.json, input), row.result) << row.json;
    }
}

TEST(ParseTest, StartElementsCarryOverWhatTheyLeaveOut) {
    task_input_st input;
    ASSERT_EQ(parse(R"({"opr_code":1,"data":{"list":[
        {"model_name":"web","app_name":"nginx","process_path":"/usr/sbin/nginx","study_times":70000,
         "alarm":true,"port":[443,80]},
        {"model_name":"api"},
        "not an object",
        {"model_name":7,"alarm":1,"port":[]}]}})",
                    input),
              WL_TASK_OK);
    ASSERT_EQ(input.models.size(), 3u);
    EXPECT_EQ(input.models[0].study_times, 70000);
    const base_init_st& api = input.models[1];
    EXPECT_EQ(api.model_name, "api");
    EXPECT_EQ(api.app_name, "nginx");
    EXPECT_EQ(api.process_path, "/usr/sbin/nginx");
    EXPECT_TRUE(api.alarm);
    EXPECT_EQ(api.port, (std::set<unsigned long long>{80, 443}));
    // A name of the wrong type keeps the previous one; an alarm of 1 is not true.
    EXPECT_EQ(input.models[2].model_name, "api");
    EXPECT_FALSE(input.models[2].alarm);
    EXPECT_TRUE(input.models[2].port.empty());
}

}  // namespace
