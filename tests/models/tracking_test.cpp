// Open-process tracking: listening ids, direct children, and the
// mark-and-sweep of the collector's filter.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "models_fixture.h"
#include "vrccl_action.h"
#include "whitelist_api.h"

extern char** environ;

namespace {

using models_double::Engine;

// A process of the test's own in a group of its own: the whole group is
// killed at the end, so no grandchild outlives the test holding its output.
class ChildProcess {
public:
    explicit ChildProcess(std::vector<std::string> argv) {
        std::vector<char*> args;
        for (auto& arg : argv) args.push_back(arg.data());
        args.push_back(nullptr);
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
        posix_spawnattr_setpgroup(&attr, 0);
        if (posix_spawn(&m_pid, args[0], nullptr, &attr, args.data(), environ) != 0) m_pid = -1;
        posix_spawnattr_destroy(&attr);
    }
    ~ChildProcess() {
        if (m_pid <= 0) return;
        kill(-m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    unsigned long long pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
};

std::string listen_json(const std::vector<std::pair<int, unsigned long long>>& sockets) {
    std::string json;
    for (const auto& socket : sockets)
        json += std::string(json.empty() ? "" : ",") + R"({"port":")" + std::to_string(socket.first) +
                R"(","process_id":")" + std::to_string(socket.second) + R"("})";
    return R"({"list":[)" + json + "]}";
}

typedef std::map<unsigned long long, bool> PidMarks;
typedef std::vector<std::pair<int, int>> Subscribed;

class TrackingTest : public ModelsTest {
protected:
    // The first call of each engine does nothing; this makes the next a full pass.
    void skip_first_calls() {
        whitelist_base_update_open_process();
        whitelist_rasp_update_open_process();
    }
    Subscribed subscribed() const {
        Subscribed result;
        for (const auto& s : models_double::subscriptions()) result.emplace_back(s.action, s.id);
        return result;
    }
};

TEST_F(TrackingTest, ModelInputGoesOneLevelDown) {
    // sh stays the parent of its sleep, which is this process's grandchild.
    ChildProcess shell({"/bin/sh", "-c", "/bin/sleep 30; true"});
    ChildProcess child({"/bin/sleep", "30"});
    ASSERT_GT(shell.pid(), 0u);
    ASSERT_GT(child.pid(), 0u);
    ASSERT_TRUE(waitUntil([&] { return !whitelist_scan_process_tree()[shell.pid()].empty(); }));
    models_double::set_asset(5, listen_json({{80, (unsigned long long)getpid()}}));
    process_tree tree = whitelist_scan_process_tree();

    _USR_INPUT input = whitelist_build_model_input(make_model("web", 70000, {80}, "/srv/web"), tree);
    EXPECT_EQ(input.oprType, USR_OPR_INIT);
    EXPECT_EQ(input.learnTime, 4464);
    EXPECT_EQ(input.processMap, (path_pid_map{{"/srv/web", {(unsigned long long)getpid()}}}));
    pid_set children;
    for (const auto& entry : input.childProcessMap) children.insert(entry.second.begin(), entry.second.end());
    EXPECT_EQ(children, (pid_set{shell.pid(), child.pid()}));
    EXPECT_EQ(input.childProcessMapDup, input.childProcessMap);
}

TEST_F(TrackingTest, FirstCallDoesNothing) {
    g_model_array->push_back(make_model("web", 5, {80}));
    g_rasp_model_array->push_back(make_model("shop", 5, {80}));
    models_double::set_asset(5, listen_json({{80, 2147483000}}));
    EXPECT_EQ(whitelist_base_update_open_process(), 0);
    whitelist_rasp_update_open_process();
    EXPECT_TRUE(models_double::engine_sequence().empty());
    EXPECT_TRUE(models_double::subscriptions().empty());
    whitelist_base_update_open_process();
    whitelist_rasp_update_open_process();
    EXPECT_EQ(models_double::engine_sequence(), (std::vector<std::string>{"base:initModel", "rasp:initModel"}));
}

TEST_F(TrackingTest, PassMarksWhatModelsHaveAndWithdrawsTheRest) {
    skip_first_calls();
    // 2147483001 came from a start command and is seen again, by two models;
    // 2147483002 is gone; 2147483003 is new.
    *g_model_pid = PidMarks{{2147483001, false}, {2147483002, false}};
    g_model_array->push_back(make_model("web", 5, {80}));
    g_model_array->push_back(make_model("api", 6, {81}));
    models_double::set_asset(5, listen_json({{80, 2147483001}, {80, 2147483003}, {81, 2147483001}}));
    EXPECT_EQ(whitelist_base_update_open_process(), 0);
    EXPECT_EQ(subscribed(), (Subscribed{{VRCCL_ACTION_ADD_PID, 2147483003}, {VRCCL_ACTION_DEL_PID, 2147483002}}));
    EXPECT_EQ(*g_model_pid, (PidMarks{{2147483001, false}, {2147483003, false}}));

    // The process stops listening: withdrawn at the end of the next pass.
    models_double::set_asset(5, listen_json({{80, 2147483001}}));
    whitelist_base_update_open_process();
    EXPECT_EQ(subscribed().back(), (std::pair<int, int>{VRCCL_ACTION_DEL_PID, 2147483003}));
    EXPECT_EQ(*g_model_pid, (PidMarks{{2147483001, false}}));
}

TEST_F(TrackingTest, WithoutAssetsEveryModelIsNotRunningAndAllIdsGo) {
    skip_first_calls();
    *g_model_pid = PidMarks{{2147483001, false}, {2147483002, false}};
    g_model_array->push_back(make_model("web", 5, {80}));
    whitelist_base_update_open_process();
    auto calls = models_double::engine_calls(Engine::Base, "interactModel");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].input.switchValue, USR_SWITCH_NOT_RUNNING);
    EXPECT_EQ(subscribed(), (Subscribed{{VRCCL_ACTION_DEL_PID, 2147483001}, {VRCCL_ACTION_DEL_PID, 2147483002}}));
    EXPECT_TRUE(g_model_pid->empty());
}

}  // namespace
