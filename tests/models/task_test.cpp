// Start, interact and delete commands against a scripted engine.
#include <unistd.h>

#include <fstream>
#include <memory>

#include "ini_file.h"
#include "models_fixture.h"
#include "vrccl_action.h"
#include "whitelist_api.h"

namespace {

using models_double::Engine;
using models_double::engine_calls;
using models_double::script;

struct IniFree {
    void operator()(void* ini) const { ini_file_free(ini); }
};

std::vector<std::string> names(const std::vector<base_init_st>& list) {
    std::vector<std::string> result;
    for (const auto& model : list) result.push_back(model.model_name);
    return result;
}

std::vector<std::string> call_names(Engine engine, const std::string& op) {
    std::vector<std::string> result;
    for (const auto& call : engine_calls(engine, op)) result.push_back(call.input.modelName);
    return result;
}

class TaskTest : public ModelsTest {
protected:
    std::string ini_value(const std::string& file, const std::string& section, const std::string& key) {
        std::unique_ptr<void, IniFree> ini(ini_file_load(file.c_str()));
        if (!ini) return "<no file>";
        const char* value = ini_file_get(ini.get(), section.c_str(), key.c_str());
        return value ? value : "<absent>";
    }
    // Port 80 is served by this test process; nothing else listens.
    void serve_port_80() {
        models_double::set_asset(5, R"({"list":[{"port":"80","process_id":")" + std::to_string(getpid()) + R"("}]})");
    }
    int start(Engine engine, const std::string& list) {
        JsonPtr root = parse_json(R"({"opr_code":)" + std::string(engine == Engine::Base ? "1" : "101") +
                                  R"(,"data":{"list":)" + list + "}}");
        return engine == Engine::Base ? whitelist_base_task_start(root.get()) : whitelist_rasp_task_start(root.get());
    }
    int names_command(int (*fn)(int, cJSON*), int opr, const std::string& data) {
        JsonPtr root = parse_json(R"({"opr_code":)" + std::to_string(opr) + R"(,"data":)" + data + "}");
        return fn(opr, root.get());
    }
};

TEST_F(TaskTest, NullOrUnparsableCommandsReturnTwo) {
    EXPECT_EQ(whitelist_base_task_start(nullptr), 2);
    EXPECT_EQ(whitelist_rasp_task_interact(2, nullptr), 2);
    EXPECT_EQ(whitelist_base_task_delete(6, nullptr), 2);
    EXPECT_EQ(m_log.count("input msg is NULL", 1), 3);
    JsonPtr bad = parse_json(R"({"opr_code":1,"data":{}})");
    m_log.clear();
    EXPECT_EQ(whitelist_base_task_start(bad.get()), 2);
    // Once by the parser and once by the task function.
    EXPECT_EQ(m_log.count("invalid input data", 1), 2);
    EXPECT_TRUE(engine_calls().empty());
}

TEST_F(TaskTest, StartWithTheSecondOfThreeRefused) {
    script(Engine::Base).init_results = {true, false, true};
    EXPECT_EQ(start(Engine::Base, R"([{"model_name":"a","app_name":"x","process_path":"/a","study_times":5,"port":[80]},
                                     {"model_name":"b"},{"model_name":"c"}])"),
              -1);
    EXPECT_EQ(names(*g_model_array), (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(ini_value(base_catalogue(), "baseengine", "count"), "2");
    EXPECT_EQ(ini_value(base_catalogue(), "model_1", "model_name"), "c");
    EXPECT_EQ(models_double::engine_sequence(),
              (std::vector<std::string>{"base:initModel", "base:parseInput", "base:initModel", "base:parseInput",
                                        "base:initModel", "base:parseInput"}));
    EXPECT_EQ(call_names(Engine::Base, "parseInput"), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_TRUE(m_log.contains("model b init fail, code 0", 2)) << m_log.dump();
}

TEST_F(TaskTest, FailureMessagePrintsTheResultSoFar) {
    script(Engine::Rasp).init_results = {false, true, false};
    EXPECT_EQ(start(Engine::Rasp, R"([{"model_name":"a","study_times":1},{"model_name":"b"},{"model_name":"c"}])"),
              -1);
    EXPECT_TRUE(m_log.contains("model a init fail, code 0", 2));
    EXPECT_TRUE(m_log.contains("model c init fail, code -1", 2));
    EXPECT_EQ(m_log.count("rasp init success", 3), 1);
    EXPECT_EQ(names(*g_rasp_model_array), (std::vector<std::string>{"b"}));
    EXPECT_EQ(ini_value(rasp_catalogue(), "raspengine", "count"), "1");
    EXPECT_EQ(call_names(Engine::Rasp, "parseInput"), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(TaskTest, StartOfAModelThatIsNotRunningStillSavesIt) {
    EXPECT_EQ(start(Engine::Base, R"([{"model_name":"web","app_name":"n","process_path":"/n","study_times":70000,
                                     "alarm":true,"port":[8080]}])"),
              0);
    auto inits = engine_calls(Engine::Base, "initModel");
    ASSERT_EQ(inits.size(), 1u);
    EXPECT_EQ(inits[0].input.oprType, USR_OPR_SWITCH);
    EXPECT_EQ(inits[0].input.switchValue, USR_SWITCH_NOT_RUNNING);
    EXPECT_EQ(inits[0].input.learnTime, 4464);
    EXPECT_TRUE(m_log.contains("model web not running", 2));
    EXPECT_TRUE(m_log.contains("start init model. model_name web, study_time 4464", 3));
    // The catalogue keeps the full value.
    EXPECT_EQ(ini_value(base_catalogue(), "model_0", "study_time"), "70000");
    EXPECT_EQ(ini_value(base_catalogue(), "model_0", "alarm"), "1");
    EXPECT_TRUE(models_double::subscriptions().empty());
    EXPECT_TRUE(g_model_pid->empty());
}

TEST_F(TaskTest, BaseStartTellsTheCollectorNewIdsOnce) {
    serve_port_80();
    (*g_model_pid)[7] = true;
    ASSERT_EQ(start(Engine::Base, R"([{"model_name":"web","study_times":65536,"port":[80]},{"model_name":"web2"}])"),
              0);
    auto inits = engine_calls(Engine::Base, "initModel");
    ASSERT_EQ(inits.size(), 2u);
    EXPECT_EQ(inits[0].input.oprType, USR_OPR_INIT);
    EXPECT_EQ(inits[0].input.learnTime, 0);
    unsigned long long self = getpid();
    EXPECT_EQ(inits[0].input.processMap.at("").count(self), 1u);
    ASSERT_EQ(models_double::subscriptions().size(), 1u);
    EXPECT_EQ(models_double::subscriptions()[0].action, VRCCL_ACTION_ADD_PID);
    EXPECT_EQ(models_double::subscriptions()[0].id, getpid());
    EXPECT_EQ(models_double::subscriptions()[0].reserved, -1);
    // Enters unmarked; what was there stays as it was.
    EXPECT_EQ(*g_model_pid, (std::map<unsigned long long, bool>{{7, true}, {self, false}}));
    EXPECT_EQ(m_log.count("add pid " + std::to_string(getpid()) + " to vr_agent", 4), 1);
}

TEST_F(TaskTest, RaspStartLeavesTheCollectorAlone) {
    serve_port_80();
    ASSERT_EQ(start(Engine::Rasp, R"([{"model_name":"shop","study_times":3,"port":[80]}])"), 0);
    EXPECT_TRUE(models_double::subscriptions().empty());
    EXPECT_TRUE(g_model_pid->empty());
    EXPECT_TRUE(g_model_array->empty());
    EXPECT_EQ(names(*g_rasp_model_array), (std::vector<std::string>{"shop"}));
    EXPECT_EQ(call_names(Engine::Rasp, "initModel"), (std::vector<std::string>{"shop"}));
    EXPECT_TRUE(engine_calls(Engine::Base, "parseInput").empty());
}

TEST_F(TaskTest, EmptyStartListChangesNothing) {
    EXPECT_EQ(start(Engine::Base, "[]"), 0);
    EXPECT_TRUE(engine_calls().empty());
    std::ifstream file(base_catalogue());
    EXPECT_FALSE(file.good());
}

TEST_F(TaskTest, InteractBuildsTheRecordFromTheOprArgument) {
    struct Case {
        int opr;
        const char* data;
        int oprType;
        int learnTime;
        int switchValue;
    } cases[] = {
        {2, R"({"list":["m"]})", USR_OPR_QUERY, 0, 0},
        {3, R"({"study_time":65536,"re_study":true,"list":["m"]})", USR_OPR_RELEARN, 0, 0},
        {3, R"({"study_time":70000,"re_study":false,"list":["m"]})", USR_OPR_STUDY_TIME, 4464, 0},
        {103, R"({"study_time":30,"re_study":1,"list":["m"]})", USR_OPR_STUDY_TIME, 30, 0},
        {4, R"({"model_switch":true,"list":["m"]})", USR_OPR_SWITCH, 0, 1},
        {104, R"({"model_switch":false,"list":["m"]})", USR_OPR_SWITCH, 0, 0},
    };
    for (const auto& c : cases) {
        models_double::reset_engines();
        bool rasp = c.opr > 100;
        EXPECT_EQ(names_command(rasp ? whitelist_rasp_task_interact : whitelist_base_task_interact, c.opr, c.data), 0);
        Engine engine = rasp ? Engine::Rasp : Engine::Base;
        auto calls = engine_calls(engine, "interactModel");
        ASSERT_EQ(calls.size(), 1u) << c.data;
        EXPECT_EQ(calls[0].input.modelName, "m");
        EXPECT_EQ(calls[0].input.oprType, c.oprType) << c.data;
        EXPECT_EQ(calls[0].input.learnTime, c.learnTime) << c.data;
        EXPECT_EQ(calls[0].input.switchValue, c.switchValue) << c.data;
        EXPECT_EQ(engine_calls(engine, "parseInput").size(), 1u);
    }
}

TEST_F(TaskTest, UnknownOprBuildsAnEmptyRecord) {
    task_input_st input;
    _USR_INPUT record = whitelist_build_interact_input(5, "m", input);
    EXPECT_TRUE(m_log.contains("invalid data", 2));
    EXPECT_EQ(record.modelName, "");
    EXPECT_EQ(record.oprType, 0);
    EXPECT_EQ(whitelist_build_interact_input(106, "m", input).oprType, USR_OPR_DELETE);
}

TEST_F(TaskTest, InteractResultIsThatOfTheLastName) {
    g_model_array->push_back(make_model("a", 5, {80}));
    script(Engine::Base).interact_results = {-1, 0};
    EXPECT_EQ(names_command(whitelist_base_task_interact, 2, R"({"list":["b","a"]})"), 0);
    EXPECT_EQ(call_names(Engine::Base, "interactModel"), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(m_log.count("interact fail", 2), 1);
    EXPECT_TRUE(m_log.contains("model a interact fail. code -1", 2));
    EXPECT_EQ(call_names(Engine::Base, "parseInput"), (std::vector<std::string>{"a", "b"}));

    models_double::reset_engines();
    script(Engine::Base).interact_results = {0, -7};
    EXPECT_EQ(names_command(whitelist_base_task_interact, 3, R"({"study_time":9,"list":["a","b"]})"), -1);
    EXPECT_TRUE(m_log.contains("model b interact fail. code -7", 2));
    // Neither the list nor the file change with an interact.
    EXPECT_EQ(g_model_array->size(), 1u);
    EXPECT_EQ((*g_model_array)[0].study_times, 5);
    std::ifstream file(base_catalogue());
    EXPECT_FALSE(file.good());
}

TEST_F(TaskTest, DeleteRemovesByPrefixAndRenumbersTheFile) {
    for (const char* name : {"web", "app", "web1", "we", "webserver"}) g_model_array->push_back(make_model(name, 5, {80}));
    EXPECT_EQ(names_command(whitelist_base_task_delete, 6, R"({"list":["web"]})"), 0);
    EXPECT_EQ(names(*g_model_array), (std::vector<std::string>{"app", "we"}));
    // The library is asked with the exact name only.
    auto calls = engine_calls(Engine::Base, "interactModel");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].input.modelName, "web");
    EXPECT_EQ(calls[0].input.oprType, USR_OPR_DELETE);
    EXPECT_TRUE(m_log.contains("delete model webserver", 3));
    EXPECT_EQ(m_log.count("delete model ", 3), 3);
    EXPECT_EQ(ini_value(base_catalogue(), "baseengine", "count"), "2");
    EXPECT_EQ(ini_value(base_catalogue(), "model_0", "model_name"), "app");
    EXPECT_EQ(ini_value(base_catalogue(), "model_1", "model_name"), "we");
    EXPECT_EQ(engine_calls(Engine::Base, "parseInput").size(), 1u);
}

TEST_F(TaskTest, DeleteOfTheEmptyNameEmptiesTheListAndKeepsACountOfZero) {
    for (const char* name : {"a", "b"}) g_rasp_model_array->push_back(make_model(name, 5, {80}));
    script(Engine::Rasp).interact_results = {-2};
    EXPECT_EQ(names_command(whitelist_rasp_task_delete, 6, R"({"list":[""]})"), -2);
    EXPECT_TRUE(g_rasp_model_array->empty());
    EXPECT_EQ(m_log.count("delete rasp model ", 3), 2);
    EXPECT_EQ(ini_value(rasp_catalogue(), "raspengine", "count"), "0");
    EXPECT_EQ(ini_value(rasp_catalogue(), "model_0", "model_name"), "<absent>");
}

TEST_F(TaskTest, RefusedDeleteKeepsTheModelAndWritesNothing) {
    g_model_array->push_back(make_model("web", 5, {80}));
    script(Engine::Base).interact_results = {-1};
    EXPECT_EQ(names_command(whitelist_base_task_delete, 6, R"({"list":["web"]})"), -1);
    EXPECT_TRUE(m_log.contains("model web interact fail. code -1", 2));
    EXPECT_EQ(names(*g_model_array), (std::vector<std::string>{"web"}));
    EXPECT_EQ(ini_value(base_catalogue(), "baseengine", "count"), "<no file>");
    // A name nobody bears, accepted by the library: still nothing written.
    EXPECT_EQ(names_command(whitelist_base_task_delete, 6, R"({"list":["zzz"]})"), 0);
    EXPECT_EQ(ini_value(base_catalogue(), "baseengine", "count"), "<no file>");
}

TEST_F(TaskTest, AfterAFirstRemovalEveryLaterNameRewritesTheFile) {
    for (const char* name : {"a", "b"}) g_model_array->push_back(make_model(name, 5, {80}));
    // Spoil the file while the library handles the second name: only a
    // rewrite for that name repairs it.
    script(Engine::Base).on_interact = [this](const _USR_INPUT& input) {
        if (input.modelName == "zzz") write_file("var/base/base_model.cfg", "[baseengine]\ncount=99\n");
    };
    EXPECT_EQ(names_command(whitelist_base_task_delete, 6, R"({"list":["a","zzz"]})"), 0);
    EXPECT_EQ(ini_value(base_catalogue(), "baseengine", "count"), "1");
    EXPECT_EQ(ini_value(base_catalogue(), "model_0", "model_name"), "b");
}

}  // namespace
