// Start, interact and delete commands against a scripted engine.
#include <cstdio>

#include "base_interface.h"
#include "models_fixture.h"
#include "whitelist_api.h"
#include "whitelist_impl.h"

namespace {

using models_double::called;
using models_double::Engine;
using models_double::engine_calls;
using models_double::queue_results;

class TaskTest : public ModelsTest {
protected:
    int start(const std::string& list) {
        JsonPtr root = parse_json(R"({"opr_code":1,"data":{"list":)" + list + "}}");
        return whitelist_base_task_start(root.get());
    }
    int command(int (*fn)(int, cJSON*), int opr, const std::string& data) {
        JsonPtr root = parse_json(R"({"opr_code":)" + std::to_string(opr) + R"(,"data":)" + data + "}");
        return fn(opr, root.get());
    }
    void add_models(std::vector<base_init_st>& list, std::initializer_list<const char*> names) {
        for (const char* name : names) list.push_back(make_model(name, 5, {80}));
    }
};

TEST_F(TaskTest, StartWithTheSecondAndFourthRefused) {
    queue_results(Engine::Base, "initModel", {1, 0, 1, 0});
    EXPECT_EQ(start(R"([{"model_name":"a","study_times":5,"port":[80]},
                                     {"model_name":"b"},{"model_name":"c"},{"model_name":"d"}])"),
              WL_TASK_REFUSED);
    EXPECT_EQ(model_names(*g_model_array), (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(ini_value(base_catalogue(), "baseengine", "count"), "2");
    EXPECT_EQ(ini_value(base_catalogue(), "model_1", "model_name"), "c");
    EXPECT_EQ(called(Engine::Base, "parseInput"), (std::vector<std::string>{"a", "b", "c", "d"}));
    EXPECT_EQ(models_double::engine_sequence()[1], "base:parseInput");
    // The code printed is the result so far.
    EXPECT_TRUE(m_log.contains("model b init fail, code 0", 2)) << m_log.dump();
    EXPECT_TRUE(m_log.contains("model d init fail, code -1", 2)) << m_log.dump();
}

TEST_F(TaskTest, InteractBuildsTheRecordFromTheOprArgument) {
    struct Row {
        int opr;
        const char* data;
        int opr_type;
        int learn_time;
        int switch_value;
    } rows[] = {
        {2, R"({"list":["m"]})", USR_OPR_QUERY, 0, 0},
        {3, R"({"study_time":65536,"re_study":true,"list":["m"]})", USR_OPR_RELEARN, 0, 0},
        {3, R"({"study_time":70000,"re_study":false,"list":["m"]})", USR_OPR_STUDY_TIME, 4464, 0},
        {104, R"({"model_switch":true,"list":["m"]})", USR_OPR_SWITCH, 0, 1},
        {4, R"({"model_switch":false,"list":["m"]})", USR_OPR_SWITCH, 0, 0},
        {4, R"({"model_switch":1,"list":["m"]})", USR_OPR_SWITCH, 0, 0},
    };
    for (const auto& row : rows) {
        models_double::reset_engines();
        Engine engine = row.opr > 100 ? Engine::Rasp : Engine::Base;
        EXPECT_EQ(
            command(row.opr > 100 ? whitelist_rasp_task_interact : whitelist_base_task_interact, row.opr, row.data),
            WL_TASK_OK);
        auto calls = engine_calls(engine, "interactModel");
        ASSERT_EQ(calls.size(), 1u) << row.data;
        EXPECT_EQ(calls[0].input.oprType, row.opr_type) << row.data;
        EXPECT_EQ(calls[0].input.learnTime, row.learn_time) << row.data;
        EXPECT_EQ(calls[0].input.switchValue, row.switch_value) << row.data;
    }
}

TEST_F(TaskTest, StartSubscribesNewPidsOnceUnmarkedAndCutsTheLearnTime) {
    models_double::set_asset(5, R"({"list":[{"port":"80","process_id":"2147483001"},
        {"port":"81","process_id":"2147483001"},{"port":"80","process_id":"2147483002"}]})");
    (*g_model_pid)[2147483002] = true;
    EXPECT_EQ(start(R"([{"model_name":"web","study_times":70000,"port":[80,81]}])"), WL_TASK_OK);
    EXPECT_EQ(module_fakes::subscriptions(), (std::vector<module_fakes::Subscription>{{260, 2147483001, -1}}));
    EXPECT_EQ(*g_model_pid, (std::map<unsigned long long, bool>{{2147483001, false}, {2147483002, true}}));
    auto calls = engine_calls(Engine::Base, "initModel");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].input.learnTime, 70000 & 0xffff);
    EXPECT_EQ(calls[0].input.oprType, USR_OPR_INIT);
    EXPECT_EQ(ini_value(base_catalogue(), "model_0", "study_time"), "70000");
}

TEST_F(TaskTest, RaspStartSavesToItsOwnCatalogueAndSubscribesNothing) {
    models_double::set_asset(5, R"({"list":[{"port":"80","process_id":"2147483001"}]})");
    whitelist_rasp_save_model(make_model("old", 5, {80}));
    JsonPtr root = parse_json(R"({"opr_code":101,"data":{"list":[{"model_name":"web","study_times":7,"port":[80]}]}})");
    EXPECT_EQ(whitelist_rasp_task_start(root.get()), WL_TASK_OK);
    EXPECT_TRUE(module_fakes::subscriptions().empty());
    EXPECT_TRUE(g_model_pid->empty());
    EXPECT_TRUE(m_log.contains("rasp init success", 3));
    EXPECT_EQ(model_names(*g_rasp_model_array), (std::vector<std::string>{"old", "web"}));
    EXPECT_EQ(ini_value(rasp_catalogue(), "raspengine", "count"), "2");
    EXPECT_EQ(ini_value(rasp_catalogue(), "model_0", "model_name"), "old");
    EXPECT_EQ(ini_value(rasp_catalogue(), "model_1", "model_name"), "web");
    EXPECT_EQ(ini_value(base_catalogue(), "baseengine", "count"), "<no file>");
    EXPECT_EQ(called(Engine::Rasp, "parseInput"), (std::vector<std::string>{"web"}));
}

TEST_F(TaskTest, InteractResultIsThatOfTheLastName) {
    queue_results(Engine::Base, "interactModel", {-1, 0, 0, -7});
    EXPECT_EQ(command(whitelist_base_task_interact, 2, R"({"list":["b","a"]})"), WL_TASK_OK);
    EXPECT_TRUE(m_log.contains("model a interact fail. code -1", 2));
    EXPECT_EQ(command(whitelist_base_task_interact, 2, R"({"list":["a","b"]})"), WL_TASK_REFUSED);
}

TEST_F(TaskTest, DeleteRemovesByPrefixAndRenumbersTheFile) {
    add_models(*g_model_array, {"web", "app", "web1", "we", "webserver"});
    EXPECT_EQ(command(whitelist_base_task_delete, 6, R"({"list":["web"]})"), WL_TASK_OK);
    EXPECT_EQ(model_names(*g_model_array), (std::vector<std::string>{"app", "we"}));
    // The library is asked with the exact name only.
    EXPECT_EQ(called(Engine::Base, "interactModel"), (std::vector<std::string>{"web"}));
    EXPECT_EQ(ini_value(base_catalogue(), "baseengine", "count"), "2");
    EXPECT_EQ(ini_value(base_catalogue(), "model_1", "model_name"), "we");
}

TEST_F(TaskTest, DeleteAsksWithTypeEightAndRewritesAfterEachNameOnceSomethingWentFromTheCommand) {
    add_models(*g_model_array, {"a", "b", "c"});
    std::vector<std::string> count_when_asked;
    fake_model::Library::instance().setHook(Engine::Base, "interactModel", [&](const fake_model::Call& call) {
        count_when_asked.push_back(ini_value(base_catalogue(), "baseengine", "count"));
        if (call.text == "zz") std::remove(base_catalogue().c_str());
    });
    EXPECT_EQ(command(whitelist_base_task_delete, 6, R"({"list":["zz","b","a"]})"), WL_TASK_OK);
    // Ascending order: a, b, zz; each removal is on file before the next name is asked.
    EXPECT_EQ(count_when_asked, (std::vector<std::string>{"<no file>", "2", "1"}));
    // zz removed nothing, yet the file is written again after it.
    EXPECT_EQ(ini_value(base_catalogue(), "baseengine", "count"), "1");
    EXPECT_EQ(ini_value(base_catalogue(), "model_0", "model_name"), "c");
    for (const auto& call : engine_calls(Engine::Base, "interactModel")) EXPECT_EQ(call.input.oprType, USR_OPR_DELETE);
    EXPECT_EQ(called(Engine::Base, "parseInput"), (std::vector<std::string>{"a", "b", "zz"}));
}

TEST_F(TaskTest, DeleteOfTheEmptyNameWithMinusTwoEmptiesTheList) {
    add_models(*g_rasp_model_array, {"a", "b"});
    queue_results(Engine::Rasp, "interactModel", {WL_INTERACT_DELETE_ANYWAY});
    EXPECT_EQ(command(whitelist_rasp_task_delete, 6, R"({"list":[""]})"), WL_INTERACT_DELETE_ANYWAY);
    EXPECT_TRUE(g_rasp_model_array->empty());
    EXPECT_EQ(ini_value(rasp_catalogue(), "raspengine", "count"), "0");
    // Any other refusal keeps the model and writes nothing.
    add_models(*g_model_array, {"web"});
    queue_results(Engine::Base, "interactModel", {-1});
    EXPECT_EQ(command(whitelist_base_task_delete, 6, R"({"list":["web"]})"), WL_TASK_REFUSED);
    EXPECT_EQ(g_model_array->size(), 1u);
    EXPECT_EQ(ini_value(base_catalogue(), "baseengine", "count"), "<no file>");
}

}  // namespace
