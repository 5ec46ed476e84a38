// Open-process tracking: the /proc readers, listening ids, direct children,
// and the mark-and-sweep of the collector's filter.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <fstream>

#include "models_fixture.h"
#include "vrccl_action.h"
#include "whitelist_api.h"

extern char** environ;

namespace {

using models_double::Engine;
using models_double::engine_calls;
using models_double::script;

// A process of the test's own, killed and reaped at the end.
class ChildProcess {
public:
    explicit ChildProcess(std::vector<std::string> argv) {
        std::vector<char*> args;
        for (auto& arg : argv) args.push_back(arg.data());
        args.push_back(nullptr);
        if (posix_spawn(&m_pid, args[0], nullptr, nullptr, args.data(), environ) != 0) m_pid = -1;
    }
    ~ChildProcess() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    pid_t pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
};

std::string exe_of(pid_t pid) {
    char buffer[1024] = {0};
    ssize_t length = readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), buffer, sizeof(buffer) - 1);
    return length > 0 ? std::string(buffer, length) : "";
}

std::string listen_json(const std::vector<std::pair<int, long>>& sockets) {
    std::string json = R"({"list":[)";
    for (size_t i = 0; i < sockets.size(); ++i) {
        if (i) json += ",";
        json += R"({"port":")" + std::to_string(sockets[i].first) + R"(","process_id":")" +
                std::to_string(sockets[i].second) + R"("})";
    }
    return json + "]}";
}

typedef std::map<unsigned long long, bool> PidMarks;

class TrackingTest : public ModelsTest {
protected:
    // Makes the next call a full pass.
    void skip_first_calls() {
        whitelist_base_update_open_process();
        whitelist_rasp_update_open_process();
        ASSERT_TRUE(engine_calls().empty());
        ASSERT_EQ(models_double::asset_requests(5), 0);
    }
    std::vector<std::pair<int, int>> subscribed() const {
        std::vector<std::pair<int, int>> result;
        for (const auto& s : models_double::subscriptions()) {
            EXPECT_EQ(s.reserved, -1);
            result.emplace_back(s.action, s.id);
        }
        return result;
    }
};

TEST_F(TrackingTest, ProcReadersSeeThisProcess) {
    EXPECT_EQ(get_process_parentid(getpid()), getppid());
    char path[1024] = {0};
    EXPECT_EQ(get_process_path_by_pid(getpid(), path, sizeof(path)), 0);
    EXPECT_EQ(std::string(path), exe_of(getpid()));

    EXPECT_EQ(get_process_parentid(INT_MAX), 0);
    EXPECT_TRUE(m_log.contains("open file /proc/2147483647/status fail", 1));
    EXPECT_EQ(get_process_path_by_pid(INT_MAX, path, sizeof(path)), -1);
    EXPECT_TRUE(m_log.contains("readlink /proc/2147483647/exe fail", 1));
    EXPECT_EQ(get_process_path_by_pid(getpid(), nullptr, 10), -1);
    EXPECT_TRUE(m_log.contains("param illegal", 2));
}

TEST_F(TrackingTest, ProcessTreeHoldsThisProcessUnderItsParent) {
    ChildProcess child({"/bin/sleep", "30"});
    ASSERT_GT(child.pid(), 0);
    process_tree tree = whitelist_scan_process_tree();
    EXPECT_EQ(tree[getppid()].count(getpid()), 1u);
    EXPECT_EQ(tree[getpid()].count(child.pid()), 1u);
    EXPECT_EQ(tree.count(0), 1u);  // pid 1 has parent 0
    EXPECT_TRUE(m_log.contains("scan end", 4));
}

TEST_F(TrackingTest, ListeningIdsMatchPortsByTheirLow32Bits) {
    models_double::set_asset(5, R"({"list":[
        {"port":"80","process_id":"100"},
        {"port":"0x50","process_id":"101"},
        {"port":"80","process_id":"0"},
        {"port":"80","process_id":"-4"},
        {"port":80,"process_id":"102"},
        {"port":"65616","process_id":"103"},
        {"port":"443","process_id":"104"},
        {"port":"443","process_id":"100"},
        {"port":"22"},
        "junk"]})");
    pid_set pids;
    whitelist_get_listen_pids(make_model("web", 1, {80, 443, 0x100000050ull}), pids);
    EXPECT_EQ(pids, (pid_set{100, 101, 104}));
    EXPECT_EQ(models_double::asset_requests(5), 1);
    EXPECT_TRUE(m_log.contains("insert pid 104 to set", 4));
}

TEST_F(TrackingTest, ListeningIdsWithoutUsableAssets) {
    pid_set pids;
    whitelist_get_listen_pids(make_model("web", 1, {80}), pids);
    EXPECT_TRUE(pids.empty());
    EXPECT_TRUE(m_log.contains("port listening get fail", 1));
    models_double::set_asset(5, R"({"items":[]})");
    whitelist_get_listen_pids(make_model("web", 1, {80, 81}), pids);
    EXPECT_TRUE(pids.empty());
    EXPECT_EQ(m_log.count("invalid data", 1), 2);
}

TEST_F(TrackingTest, ChildrenAreFiledByExecutableAndAnUnreadableOneTakesThePreviousPath) {
    ChildProcess child({"/bin/sleep", "30"});
    ASSERT_GT(child.pid(), 0);
    std::string sleep_path = exe_of(child.pid());
    unsigned long long gone = INT_MAX;
    process_tree tree{{1000, {(unsigned long long)child.pid(), gone}}, {1001, {5}}};
    _USR_INPUT input;
    pid_set found = whitelist_collect_child_process(input, {1000, 999}, tree, 0);
    EXPECT_EQ(found, (pid_set{(unsigned long long)child.pid(), gone}));
    EXPECT_EQ(input.childProcessMap, (path_pid_map{{sleep_path, {(unsigned long long)child.pid(), gone}}}));
    EXPECT_TRUE(input.childProcessMapDup.empty());
    whitelist_collect_child_process(input, {1000}, tree, 1);
    EXPECT_EQ(input.childProcessMapDup, input.childProcessMap);

    // With nothing read before it, an unreadable child goes under "".
    _USR_INPUT second;
    whitelist_collect_child_process(second, {1}, process_tree{{1, {gone}}}, 0);
    EXPECT_EQ(second.childProcessMap, (path_pid_map{{"", {gone}}}));
}

TEST_F(TrackingTest, ModelInputGoesOneLevelDown) {
    // sh stays the parent of its sleep, which is this process's grandchild.
    ChildProcess shell({"/bin/sh", "-c", "/bin/sleep 30; true"});
    ChildProcess child({"/bin/sleep", "31"});
    ASSERT_GT(shell.pid(), 0);
    ASSERT_GT(child.pid(), 0);
    ASSERT_TRUE(waitUntil([&] { return !whitelist_scan_process_tree()[shell.pid()].empty(); }));
    models_double::set_asset(5, listen_json({{80, getpid()}}));
    process_tree tree = whitelist_scan_process_tree();
    unsigned long long grandchild = *tree[shell.pid()].begin();

    _USR_INPUT input = whitelist_build_model_input(make_model("web", 70000, {80}, "/srv/web"), tree);
    EXPECT_EQ(input.oprType, USR_OPR_INIT);
    EXPECT_EQ(input.modelName, "web");
    EXPECT_EQ(input.learnTime, 4464);
    EXPECT_EQ(input.processMap, (path_pid_map{{"/srv/web", {(unsigned long long)getpid()}}}));
    pid_set children;
    for (const auto& entry : input.childProcessMap) children.insert(entry.second.begin(), entry.second.end());
    EXPECT_EQ(children, (pid_set{(unsigned long long)shell.pid(), (unsigned long long)child.pid()}));
    EXPECT_EQ(children.count(grandchild), 0u);
    EXPECT_EQ(input.childProcessMap.at(exe_of(child.pid())).count(child.pid()), 1u);
    EXPECT_EQ(input.childProcessMapDup, input.childProcessMap);
    EXPECT_TRUE(m_log.contains("model_name web, learnTime 4464. pfilePath /srv/web", 3));
}

TEST_F(TrackingTest, ModelInputOfAModelNobodyServes) {
    models_double::set_asset(5, listen_json({{22, 1}}));
    _USR_INPUT input = whitelist_build_model_input(make_model("web", 65536, {80}, "/srv/web"), process_tree{});
    EXPECT_EQ(input.oprType, USR_OPR_SWITCH);
    EXPECT_EQ(input.switchValue, USR_SWITCH_NOT_RUNNING);
    EXPECT_EQ(input.learnTime, 0);
    EXPECT_EQ(input.processMap, (path_pid_map{{"/srv/web", {}}}));
    EXPECT_TRUE(input.childProcessMap.empty());
    EXPECT_TRUE(m_log.contains("model web not running", 2));
}

TEST_F(TrackingTest, FirstCallDoesNothing) {
    g_model_array->push_back(make_model("web", 5, {80}));
    g_rasp_model_array->push_back(make_model("shop", 5, {80}));
    (*g_model_pid)[9] = false;
    models_double::set_asset(5, listen_json({{80, 2147483000}}));
    EXPECT_EQ(whitelist_base_update_open_process(), 0);
    whitelist_rasp_update_open_process();
    EXPECT_TRUE(engine_calls().empty());
    EXPECT_TRUE(models_double::subscriptions().empty());
    EXPECT_EQ(g_model_pid->size(), 1u);
    EXPECT_EQ(whitelist_base_update_open_process(), 0);
    whitelist_rasp_update_open_process();
    EXPECT_EQ(models_double::engine_sequence(), (std::vector<std::string>{"base:initModel", "rasp:initModel"}));
}

TEST_F(TrackingTest, PassMarksWhatModelsHaveAndWithdrawsTheRest) {
    skip_first_calls();
    // 2147483001 came from a start command and is seen again; 2147483002 is
    // gone; 2147483003 is new; two models share 2147483001.
    *g_model_pid = PidMarks{{2147483001, false}, {2147483002, false}};
    g_model_array->push_back(make_model("web", 5, {80}));
    g_model_array->push_back(make_model("api", 6, {81}));
    models_double::set_asset(5, listen_json({{80, 2147483001}, {80, 2147483003}, {81, 2147483001}}));
    EXPECT_EQ(whitelist_base_update_open_process(), 0);
    EXPECT_EQ(subscribed(), (std::vector<std::pair<int, int>>{{VRCCL_ACTION_ADD_PID, 2147483003},
                                                               {VRCCL_ACTION_DEL_PID, 2147483002}}));
    EXPECT_EQ(*g_model_pid, (PidMarks{{2147483001, false}, {2147483003, false}}));
    EXPECT_EQ(m_log.count("set pid 2147483001 to delete", 4), 2);
    EXPECT_TRUE(m_log.contains("update pid 2147483003 to vr_agent", 4));
    EXPECT_EQ(m_log.count("update model web info", 3), 1);
    EXPECT_EQ(m_log.count("update model api info", 3), 1);
    EXPECT_EQ(engine_calls(Engine::Base, "initModel").size(), 2u);

    // The process stops listening: withdrawn at the end of the next pass.
    models_double::set_asset(5, listen_json({{80, 2147483001}}));
    EXPECT_EQ(whitelist_base_update_open_process(), 0);
    EXPECT_EQ(subscribed().back(), (std::pair<int, int>{VRCCL_ACTION_DEL_PID, 2147483003}));
    EXPECT_EQ(*g_model_pid, (PidMarks{{2147483001, false}}));
}

TEST_F(TrackingTest, RefusedInitStillMarksAndChildrenAreSubscribed) {
    skip_first_calls();
    ChildProcess child({"/bin/sleep", "30"});
    ASSERT_GT(child.pid(), 0);
    g_model_array->push_back(make_model("web", 5, {80}));
    script(Engine::Base).init_results = {false};
    models_double::set_asset(5, listen_json({{80, getpid()}}));
    whitelist_base_update_open_process();
    EXPECT_TRUE(m_log.contains("update model web info fail", 2));
    EXPECT_EQ(g_model_pid->count(getpid()), 1u);
    EXPECT_EQ(g_model_pid->count(child.pid()), 1u);
    EXPECT_TRUE(m_log.contains("update pid " + std::to_string(child.pid()) + " to vr_agent", 4));
    auto inits = engine_calls(Engine::Base, "initModel");
    ASSERT_EQ(inits.size(), 1u);
    EXPECT_EQ(inits[0].input.childProcessMapDup, inits[0].input.childProcessMap);
    EXPECT_FALSE(inits[0].input.childProcessMap.empty());
}

TEST_F(TrackingTest, WithoutAssetsEveryModelIsNotRunningAndAllIdsGo) {
    skip_first_calls();
    *g_model_pid = PidMarks{{2147483001, false}, {2147483002, false}};
    g_model_array->push_back(make_model("web", 5, {80}));
    g_model_array->push_back(make_model("api", 5, {81}));
    script(Engine::Base).interact_results = {-1, 0};
    whitelist_base_update_open_process();
    auto calls = engine_calls(Engine::Base, "interactModel");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].input.oprType, USR_OPR_SWITCH);
    EXPECT_EQ(calls[0].input.switchValue, USR_SWITCH_NOT_RUNNING);
    EXPECT_TRUE(engine_calls(Engine::Base, "initModel").empty());
    EXPECT_EQ(m_log.count("model web interact fail.", 2), 1);
    EXPECT_EQ(m_log.count("interact fail.", 2), 1);
    EXPECT_EQ(subscribed(), (std::vector<std::pair<int, int>>{{VRCCL_ACTION_DEL_PID, 2147483001},
                                                               {VRCCL_ACTION_DEL_PID, 2147483002}}));
    EXPECT_TRUE(g_model_pid->empty());
}

TEST_F(TrackingTest, RaspPassTellsTheLibraryOnly) {
    skip_first_calls();
    (*g_model_pid)[2147483001] = false;
    g_rasp_model_array->push_back(make_model("shop", 5, {80}));
    g_rasp_model_array->push_back(make_model("gone", 5, {99}));
    script(Engine::Rasp).init_results = {false};
    script(Engine::Rasp).interact_results = {-3};
    models_double::set_asset(5, listen_json({{80, 2147483005}}));
    whitelist_rasp_update_open_process();
    EXPECT_EQ(models_double::engine_sequence(), (std::vector<std::string>{"rasp:initModel", "rasp:interactModel"}));
    EXPECT_TRUE(m_log.contains("update rasp model shop info", 3));
    EXPECT_TRUE(m_log.contains("update rasp model shop info fail", 2));
    EXPECT_TRUE(m_log.contains("rasp model gone interact fail.", 2));
    EXPECT_TRUE(models_double::subscriptions().empty());
    EXPECT_EQ(*g_model_pid, (PidMarks{{2147483001, false}}));
}

}  // namespace
