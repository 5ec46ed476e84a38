// Open-process tracking: the mark-and-sweep of the collector's filter.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "models_fixture.h"
#include "vrccl_action.h"
#include "whitelist_api.h"

namespace {

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

TEST_F(TrackingTest, FirstCallOfEachEngineDoesNothing) {
    g_model_array->push_back(make_model("web", 5, {80}));
    g_rasp_model_array->push_back(make_model("api", 5, {80}));
    models_double::set_asset(5, listen_json({{80, 2147483001}}));
    *g_model_pid = PidMarks{{2147483002, false}};
    EXPECT_EQ(whitelist_base_update_open_process(), 0);
    whitelist_rasp_update_open_process();
    EXPECT_TRUE(models_double::engine_sequence().empty());
    EXPECT_TRUE(subscribed().empty());
    EXPECT_EQ(*g_model_pid, (PidMarks{{2147483002, false}}));
}

TEST_F(TrackingTest, ModelNotRunningIsSwitchedWithTwoAndItsIdsAreSwept) {
    skip_first_calls();
    *g_model_pid = PidMarks{{2147483002, true}};
    g_model_array->push_back(make_model("web", 5, {80}));
    g_rasp_model_array->push_back(make_model("api", 5, {80}));
    models_double::set_asset(5, listen_json({{81, 2147483001}}));
    whitelist_base_update_open_process();
    whitelist_rasp_update_open_process();
    EXPECT_EQ(models_double::engine_sequence(), (std::vector<std::string>{"base:interactModel", "rasp:interactModel"}));
    for (auto engine : {models_double::Engine::Base, models_double::Engine::Rasp}) {
        auto calls = models_double::engine_calls(engine, "interactModel");
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].input.oprType, USR_OPR_SWITCH);
        EXPECT_EQ(calls[0].input.switchValue, USR_SWITCH_NOT_RUNNING);
    }
    // A mark left from before is cleared, not swept; unmarked the next pass.
    EXPECT_TRUE(subscribed().empty());
    whitelist_base_update_open_process();
    EXPECT_EQ(subscribed(), (Subscribed{{VRCCL_ACTION_DEL_PID, 2147483002}}));
    EXPECT_TRUE(g_model_pid->empty());
}

// A process in its own group with a child, which has a child of its own.
class ProcessFamily {
public:
    ProcessFamily() {
        int child_ids[2], grandchild_ids[2];
        if (pipe(child_ids) != 0 || pipe(grandchild_ids) != 0) return;
        m_leader = fork();
        if (m_leader == 0) {
            setpgid(0, 0);
            // Each tells its own id: under asan what fork returned did not
            // match the id /proc shows.
            if (fork() == 0) {
                pid_t self = getpid();
                if (write(child_ids[1], &self, sizeof(self)) < 0) _exit(1);
                if (fork() == 0) {
                    self = getpid();
                    if (write(grandchild_ids[1], &self, sizeof(self)) < 0) _exit(1);
                }
            }
            while (true) pause();
        }
        setpgid(m_leader, m_leader);
        if (read(child_ids[0], &m_child, sizeof(m_child)) != sizeof(m_child) ||
            read(grandchild_ids[0], &m_grandchild, sizeof(m_grandchild)) != sizeof(m_grandchild))
            m_child = m_grandchild = 0;
        for (int fd : {child_ids[0], child_ids[1], grandchild_ids[0], grandchild_ids[1]}) close(fd);
    }
    ~ProcessFamily() {
        if (m_leader <= 0) return;
        kill(-m_leader, SIGKILL);
        waitpid(m_leader, nullptr, 0);
    }
    pid_t m_leader = -1;
    pid_t m_child = 0;
    pid_t m_grandchild = 0;
};

typedef std::map<std::string, std::set<unsigned long long>> PathPids;

TEST_F(TrackingTest, PassFindsChildrenOneLevelDownTwiceAndMarksThemEvenWhenRefused) {
    ProcessFamily family;
    ASSERT_GT(family.m_child, 0);
    ASSERT_GT(family.m_grandchild, 0);
    skip_first_calls();
    models_double::script(models_double::Engine::Base).init_results = {false};
    base_init_st model = make_model("web", 70000, {80});
    g_model_array->push_back(model);
    models_double::set_asset(5, listen_json({{80, (unsigned long long)family.m_leader}}));
    whitelist_base_update_open_process();

    auto calls = models_double::engine_calls(models_double::Engine::Base, "initModel");
    ASSERT_EQ(calls.size(), 1u);
    const _USR_INPUT& input = calls[0].input;
    char exe[1024] = {0};
    ASSERT_GT(readlink("/proc/self/exe", exe, sizeof(exe) - 1), 0);
    EXPECT_EQ(input.oprType, USR_OPR_INIT);
    EXPECT_EQ(input.learnTime, 70000 & 0xffff);
    EXPECT_EQ(input.processMap, (PathPids{{model.process_path, {(unsigned long long)family.m_leader}}}));
    EXPECT_EQ(input.childProcessMap, (PathPids{{exe, {(unsigned long long)family.m_child}}}));
    EXPECT_EQ(input.childProcessMapDup, input.childProcessMap);
    EXPECT_TRUE(m_log.contains("update model web info fail", 2));
    EXPECT_EQ(subscribed(),
              (Subscribed{{VRCCL_ACTION_ADD_PID, family.m_leader}, {VRCCL_ACTION_ADD_PID, family.m_child}}));
    EXPECT_EQ(*g_model_pid,
              (PidMarks{{(unsigned long long)family.m_leader, false}, {(unsigned long long)family.m_child, false}}));
}

TEST_F(TrackingTest, ProcWalkFilesEachProcessUnderItsParent) {
    ProcessFamily family;
    ASSERT_GT(family.m_grandchild, 0);
    process_tree tree = whitelist_scan_process_tree();
    EXPECT_EQ(tree[(unsigned long long)family.m_leader],
              (std::set<unsigned long long>{(unsigned long long)family.m_child}));
    EXPECT_EQ(tree[(unsigned long long)family.m_child],
              (std::set<unsigned long long>{(unsigned long long)family.m_grandchild}));
    EXPECT_EQ(tree[(unsigned long long)getpid()].count((unsigned long long)family.m_leader), 1u);
}

}  // namespace
