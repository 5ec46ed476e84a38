// Open-process tracking: the mark-and-sweep of the collector's filter.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "models_fixture.h"
#include "vrccl_action.h"
#include "whitelist_api.h"
#include "wl_proc.h"

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
        for (const auto& s : module_fakes::subscriptions()) result.emplace_back(s.action, s.id);
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
    models_double::queue_results(models_double::Engine::Base, "initModel", {0});
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

// --- Over a made-up /proc ----------------------------------------------

namespace fs = std::filesystem;

// One entry of a made-up /proc. kDir holds text as its status; kLink is a
// symbolic link to text; kFile is a plain file.
struct ProcNode {
    enum Kind { kDir, kDirNoStatus, kDirStatusUnreadable, kFile, kLink };
    std::string name;
    Kind kind;
    std::string text;
    std::string exe;  // target of the exe link; none when empty
};

std::string status_text(int pid, int parent) {
    const std::string id = std::to_string(pid);
    return "Name:\tapp\nUmask:\t0022\nState:\tS (sleeping)\nTgid:\t" + id + "\nNgid:\t0\nPid:\t" + id + "\nPPid:\t" +
           std::to_string(parent) + "\nTracerPid:\t0\n";
}

ProcNode process(int pid, int parent, const std::string& exe = "") {
    return {std::to_string(pid), ProcNode::kDir, status_text(pid, parent), exe};
}

ProcNode entry(const std::string& name, ProcNode::Kind kind, const std::string& text = "") {
    return {name, kind, text, ""};
}

// Builds the tree under root and points the module at it while it lives.
class FakeProc {
public:
    FakeProc(const std::string& root, const std::vector<ProcNode>& nodes) : m_root(root) {
        fs::create_directories(m_root + "/proc");
        for (const ProcNode& node : nodes) add(node);
        g_wl_proc_root = m_root.c_str();
    }
    // Back to the shipping root, which the tests over the system's /proc check.
    ~FakeProc() { g_wl_proc_root = m_saved; }
    FakeProc(const FakeProc&) = delete;
    FakeProc& operator=(const FakeProc&) = delete;
    std::string path(const std::string& relative) const { return m_root + "/proc/" + relative; }

private:
    void add(const ProcNode& node) {
        const std::string dir = path(node.name);
        if (node.kind == ProcNode::kFile) {
            std::ofstream(dir) << node.text;
            return;
        }
        if (node.kind == ProcNode::kLink) {
            fs::create_directory_symlink(node.text, dir);
            return;
        }
        fs::create_directories(dir);
        // Root reads any file whatever its mode: a directory is what it can't read.
        if (node.kind == ProcNode::kDirStatusUnreadable) fs::create_directories(dir + "/status");
        if (node.kind == ProcNode::kDir) std::ofstream(dir + "/status") << node.text;
        if (!node.exe.empty()) fs::create_symlink(node.exe, dir + "/exe");
    }
    std::string m_root;
    const char* m_saved = g_wl_proc_root;
};

typedef std::set<unsigned long long> Pids;

TEST_F(TrackingTest, ProcWalkOverMadeUpTrees) {
    struct Case {
        const char* name;
        std::vector<ProcNode> nodes;
        process_tree expected;
    } cases[] = {
        {"parents to children",
         {process(1, 0), process(10, 1), process(11, 1), process(12, 10)},
         {{0, {1}}, {1, {10, 11}}, {10, {12}}}},
        {"names that are no process id",
         {process(10, 1), entry("sys", ProcNode::kDir, status_text(5, 1)), entry("self", ProcNode::kDirNoStatus)},
         {{1, {10}}}},
        {"numeric names that are no directory",
         {process(10, 1), entry("77", ProcNode::kFile, "PPid:\t1\n"), entry("78", ProcNode::kLink, "10")},
         {{1, {10}}}},
        {"gone after the listing, unreadable status or no parent line: parent 0",
         {process(10, 1), entry("20", ProcNode::kDirNoStatus), entry("21", ProcNode::kDirStatusUnreadable),
          entry("22", ProcNode::kDir, "Name:\tapp\nPid:\t22\n")},
         {{1, {10}}, {0, {20, 21, 22}}}},
        {"empty", {}, {}},
    };
    int index = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeProc proc(path("walk" + std::to_string(index++)), c.nodes);
        EXPECT_EQ(whitelist_scan_process_tree(), c.expected);
    }
    m_log.clear();
    FakeProc gone(path("no_proc"), {});
    fs::remove(gone.path(""));
    EXPECT_TRUE(whitelist_scan_process_tree().empty());
    EXPECT_TRUE(m_log.contains("create walk dir handle failed.", 1));
}

TEST_F(TrackingTest, ParentLookUpReadsThePPidLine) {
    struct Case {
        const char* name;
        ProcNode node;
        int parent;
        bool open_failed;
    } cases[] = {
        {"among the other lines", process(42, 7), 7, false},
        {"decimal even with a leading zero", entry("42", ProcNode::kDir, "PPid:\t010\n"), 10, false},
        {"no parent line", entry("42", ProcNode::kDir, "Name:\tapp\nPid:\t42\n"), 0, false},
        {"unreadable", entry("42", ProcNode::kDirStatusUnreadable), 0, false},
        {"gone", entry("42", ProcNode::kDirNoStatus), 0, true},
    };
    int index = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        m_log.clear();
        FakeProc proc(path("parent" + std::to_string(index++)), {c.node});
        EXPECT_EQ(get_process_parentid(42), c.parent);
        EXPECT_EQ(m_log.count("open file " + proc.path("42/status") + " fail", 1), c.open_failed ? 1 : 0);
    }
}

TEST_F(TrackingTest, PathLookUpReadsTheExeLink) {
    const std::string nginx = "/usr/sbin/nginx";
    struct Case {
        const char* name;
        std::string exe;
        int size;
        int result;
        std::string text;
    } cases[] = {
        {"whole", nginx, 1024, 0, nginx},
        {"deleted executable: as the kernel shows it", nginx + " (deleted)", 1024, 0, nginx + " (deleted)"},
        {"cut to the buffer, terminated inside it", nginx, 6, 0, "/usr/"},
        {"no link: kernel thread or gone", "", 1024, -1, ""},
    };
    int index = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        m_log.clear();
        FakeProc proc(path("exe" + std::to_string(index++)), {process(42, 1, c.exe)});
        // Beyond size the buffer must stay as it was.
        std::vector<char> buffer((size_t)c.size + 16, '#');
        buffer[0] = '\0';
        EXPECT_EQ(get_process_path_by_pid(42, buffer.data(), c.size), c.result);
        EXPECT_EQ(std::string(buffer.data()), c.text);
        EXPECT_EQ(std::string(buffer.begin() + c.size, buffer.end()), std::string(16, '#'));
        EXPECT_EQ(m_log.count("readlink " + proc.path("42/exe") + " fail", 1), c.result == 0 ? 0 : 1);
    }
    EXPECT_EQ(get_process_path_by_pid(42, nullptr, 1024), -1);
    EXPECT_TRUE(m_log.contains("param illegal", 2));
}

TEST_F(TrackingTest, ListeningPidsComeFromTheOpenPortAssets) {
    struct Case {
        const char* name;
        std::set<unsigned long long> ports;
        const char* assets;  // null: unavailable
        Pids expected;
        const char* log;  // at level 1
        int times;
    } cases[] = {
        {"listeners on the model's ports",
         {80, 443},
         R"({"list":[{"port":"80","process_id":"100"},{"port":"443","process_id":"101"},
            {"port":"22","process_id":"102"},{"port":"443","process_id":"100"}]})",
         {100, 101},
         nullptr,
         0},
        {"port texts in any base, compared on 32 bits",
         {80},
         R"({"list":[{"port":"0x50","process_id":"100"},{"port":"0120","process_id":"101"},
            {"port":"4294967376","process_id":"102"},{"port":"8080","process_id":"103"}]})",
         {100, 101, 102},
         nullptr,
         0},
        {"ids above 0 only",
         {80},
         R"({"list":[{"port":"80","process_id":"0"},{"port":"80","process_id":"-5"},
            {"port":"80","process_id":"4294967295"},{"port":"80","process_id":"0x64"}]})",
         {100},
         nullptr,
         0},
        {"unusable elements",
         {80},
         R"({"list":[5,{"port":80,"process_id":"101"},{"port":"80","process_id":102},{"port":"80"},
            {"process_id":"103"},{"port":"80","process_id":"100"}]})",
         {100},
         nullptr,
         0},
        {"no list: one message per port", {80, 443}, R"({"data":[]})", {}, "invalid data", 2},
        {"no assets", {80, 443}, nullptr, {}, "port listening get fail", 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        m_log.clear();
        models_double::reset_agent();
        if (c.assets) models_double::set_asset(5, c.assets);
        Pids pids = {7};  // filled, not replaced
        whitelist_get_listen_pids(make_model("web", 5, c.ports), pids);
        Pids expected = c.expected;
        expected.insert(7);
        EXPECT_EQ(pids, expected);
        if (c.log) {
            EXPECT_EQ(m_log.count(c.log, 1), c.times);
        }
    }
}

TEST_F(TrackingTest, ChildrenOfListenersOverMadeUpTrees) {
    // 100 listens on the model's port; 200 listens elsewhere.
    struct Case {
        const char* name;
        std::vector<ProcNode> nodes;
        PathPids expected;
    } cases[] = {
        {"one level down, one set per executable",
         {process(100, 1), process(101, 100, "/bin/worker"), process(102, 100, "/bin/worker"),
          process(103, 100, "/bin/helper"), process(104, 101, "/bin/grandchild"), process(201, 200, "/bin/other")},
         {{"/bin/worker", {101, 102}}, {"/bin/helper", {103}}}},
        {"a child without a link goes under the path read before it",
         {process(100, 1), process(101, 100, "/bin/worker"), process(102, 100)},
         {{"/bin/worker", {101, 102}}}},
        {"or under the empty path when it is the first",
         {process(100, 1), process(101, 100), process(102, 100, "/bin/worker")},
         {{"", {101}}, {"/bin/worker", {102}}}},
        {"no children", {process(100, 1), process(101, 1, "/bin/worker")}, {}},
    };
    models_double::set_asset(5, listen_json({{80, 100}, {81, 200}}));
    int index = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeProc proc(path("family" + std::to_string(index++)), c.nodes);
        _USR_INPUT input = whitelist_build_model_input(make_model("web", 5, {80}), whitelist_scan_process_tree());
        EXPECT_EQ(input.oprType, USR_OPR_INIT);
        EXPECT_EQ(input.childProcessMap, c.expected);
        EXPECT_EQ(input.childProcessMapDup, c.expected);
    }
}

}  // namespace
