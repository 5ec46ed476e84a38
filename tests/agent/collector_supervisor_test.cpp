// The collector's supervision: back-off, giving up on exit status 3, a
// missing program, stopping; scripted processes on a fake clock, then real
// ones through a small shell script standing in for wl-collector.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <vector>

#include "collector_supervisor.h"
#include "log_capture.h"
#include "temp_dir.h"

using namespace wlagent;
using namespace std::chrono_literals;

namespace {

// An install tree for the stand-in collector: a shell script, or a plain file
// with mode.
class TempRoot : public TempDir {
public:
    TempRoot() { std::filesystem::create_directories(*this / "vr_agent"); }
    void writeCollector(const std::string& body, mode_t mode = 0755) const {
        std::string file = *this / "vr_agent/wl-collector";
        std::ofstream(file) << "#!/bin/sh\n" << body << "\n";
        ::chmod(file.c_str(), mode);
    }
};

class ScriptedProcesses : public ProcessControl {
public:
    pid_t spawn(const std::vector<std::string>& argv, const std::string&, std::string& error) override {
        spawned.push_back(argv);
        if (!spawnError.empty()) {
            error = spawnError;
            return -1;
        }
        return 100 + static_cast<pid_t>(spawned.size());
    }
    bool reap(pid_t, ChildExit& exit) override {
        if (!nextExit) return false;
        exit = *nextExit;
        nextExit.reset();
        return true;
    }
    ChildExit terminate(pid_t pid, std::chrono::milliseconds) override {
        terminated.push_back(pid);
        return ChildExit{true, SIGTERM};
    }

    std::vector<std::vector<std::string>> spawned;
    std::vector<pid_t> terminated;
    std::optional<ChildExit> nextExit;
    std::string spawnError;
};

struct Lines {
    std::vector<std::string> all;
    bool contains(const std::string& fragment) const {
        for (const auto& l : all)
            if (l.find(fragment) != std::string::npos) return true;
        return false;
    }
    std::string dump() const {
        std::string out;
        for (const auto& l : all) out += l + "\n";
        return out;
    }
};

class SupervisorTest : public ::testing::Test {
protected:
    SupervisorTest() { root.writeCollector("exit 0"); }
    std::unique_ptr<CollectorSupervisor> make(const std::string& backend = "auto") {
        return std::make_unique<CollectorSupervisor>(
            collectorOptions(root.path(), backend), processes, [this] { return now; },
            [this](const std::string& l) { lines.all.push_back(l); });
    }
    // The running process ends now; the supervisor notices at its next poll.
    void exitWith(CollectorSupervisor& s, ChildExit exit) {
        processes.nextExit = exit;
        s.poll();
    }

    TempRoot root;
    ScriptedProcesses processes;
    std::chrono::steady_clock::time_point now{};
    Lines lines;
};

}  // namespace

TEST_F(SupervisorTest, CrashesAreRestartedWithDoublingBackOffResetBySteadyRun) {
    struct Case {
        int limit;  // 0: the default
        std::vector<int> delays;
    } cases[] = {{0, {1, 2, 4, 8, 16, 32, 60, 60}}, {3, {1, 2, 3, 3}}, {1, {1, 1}}};
    for (const Case& c : cases) {
        lines.all.clear();
        auto s = make();
        if (c.limit) s->setMaxDelay(std::chrono::seconds(c.limit));
        s->start();
        for (int d : c.delays) {
            exitWith(*s, ChildExit{false, 1});
            EXPECT_TRUE(lines.contains("collector exited with status 1; restarting it in " + std::to_string(d) + " s"))
                << "limit " << c.limit << lines.dump();
            size_t before = processes.spawned.size();
            now += std::chrono::seconds(d) - 1ms;
            s->poll();
            EXPECT_EQ(processes.spawned.size(), before) << "restarted early, delay " << d;
            now += 1ms;
            s->poll();
            EXPECT_EQ(processes.spawned.size(), before + 1) << "not restarted after " << d << " s";
        }
        now += CollectorSupervisor::kSteadyRun;
        lines.all.clear();
        exitWith(*s, ChildExit{true, SIGKILL});
        EXPECT_TRUE(lines.contains("collector killed by signal 9 (Killed); restarting it in 1 s")) << lines.dump();
        s->stop();
    }
}

TEST_F(SupervisorTest, ExitStatusThreeIsFinalAndItsReasonIsLogged) {
    auto s = make();
    s->start();
    std::filesystem::create_directories(root.path() + "/var/log/agent/vr_agent");
    std::ofstream(root.path() + "/var/log/agent/vr_agent/collector.log")
        << "starting\nwl-collector: needs root to capture host events\n\n";
    exitWith(*s, ChildExit{false, 3});
    EXPECT_EQ(s->state(), CollectorSupervisor::State::GaveUp);
    EXPECT_TRUE(lines.contains("cannot run on this host: wl-collector: needs root to capture host events"))
        << lines.dump();
    now += 1h;
    s->poll();
    EXPECT_EQ(processes.spawned.size(), 1u);
    s->stop();
    EXPECT_TRUE(processes.terminated.empty()) << "nothing runs to stop";
}

TEST_F(SupervisorTest, ArgumentsNameTheSocketAndAChosenBackEnd) {
    struct Case {
        const char* backend;
        std::vector<std::string> tail;
    };
    const Case cases[] = {{"auto", {}}, {"portable", {"--backend", "portable"}}, {"ebpf", {"--backend", "ebpf"}}};
    for (const Case& c : cases) {
        processes.spawned.clear();
        make(c.backend)->start();
        std::vector<std::string> want = {root.path() + "/vr_agent/wl-collector", "--socket",
                                         root.path() + "/var/run/vrccl.sock"};
        want.insert(want.end(), c.tail.begin(), c.tail.end());
        ASSERT_EQ(processes.spawned.size(), 1u);
        EXPECT_EQ(processes.spawned[0], want) << c.backend;
    }
    EXPECT_TRUE(isCollectorBackend("portable"));
    EXPECT_FALSE(isCollectorBackend("kprobe"));
}

TEST_F(SupervisorTest, MissingProgramIsReportedAndNeverStarted) {
    std::filesystem::remove(root.path() + "/vr_agent/wl-collector");
    auto s = make();
    s->start();
    EXPECT_EQ(s->state(), CollectorSupervisor::State::Missing);
    EXPECT_TRUE(lines.contains("no collector at " + root.path() + "/vr_agent/wl-collector")) << lines.dump();
    now += 1h;
    s->poll();
    EXPECT_TRUE(processes.spawned.empty());
}

TEST_F(SupervisorTest, FailedStartIsRetriedAndStopEndsTheRunningCollector) {
    processes.spawnError = "cannot run x: Permission denied";
    auto s = make();
    s->start();
    EXPECT_EQ(s->state(), CollectorSupervisor::State::Waiting);
    EXPECT_TRUE(lines.contains("cannot start the collector: cannot run x: Permission denied; restarting it in 1 s"));
    processes.spawnError.clear();
    now += 1s;
    s->poll();
    ASSERT_EQ(s->state(), CollectorSupervisor::State::Running);
    pid_t pid = s->pid();
    s.reset();  // the agent's exit path
    EXPECT_EQ(processes.terminated, std::vector<pid_t>{pid});
    EXPECT_TRUE(lines.contains("collector stopped (signal 15)")) << lines.dump();
}

// Real processes: the script stands in for wl-collector.
TEST(SupervisorProcesses, ScriptOutputGoesToTheLogAndExitThreeStopsRestarts) {
    TempRoot root;
    root.writeCollector("echo \"args: $*\"\necho 'wl-collector: no capture back-end on this kernel' >&2\nexit 3");
    SystemProcessControl processes;
    Lines lines;
    CollectorSupervisor s(
        collectorOptions(root.path(), "ebpf"), processes, [] { return std::chrono::steady_clock::now(); },
        [&](const std::string& l) { lines.all.push_back(l); });
    s.start();
    ASSERT_TRUE(waitUntil([&] {
        s.poll();
        return s.state() != CollectorSupervisor::State::Running;
    })) << lines.dump();
    EXPECT_EQ(s.state(), CollectorSupervisor::State::GaveUp);
    EXPECT_TRUE(lines.contains("cannot run on this host: wl-collector: no capture back-end on this kernel"))
        << lines.dump();
    std::ifstream log(root.path() + "/var/log/agent/vr_agent/collector.log");
    std::string text((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("args: --socket " + root.path() + "/var/run/vrccl.sock --backend ebpf"), std::string::npos)
        << text;
}

TEST(SupervisorProcesses, StopTerminatesAndUnrunnableProgramIsExplained) {
    TempRoot root;
    root.writeCollector("exec sleep 30");
    SystemProcessControl processes;
    Lines lines;
    auto clock = [] { return std::chrono::steady_clock::now(); };
    auto log = [&](const std::string& l) { lines.all.push_back(l); };
    {
        CollectorSupervisor s(collectorOptions(root.path(), "auto"), processes, clock, log);
        s.start();
        ASSERT_EQ(s.state(), CollectorSupervisor::State::Running) << lines.dump();
        pid_t pid = s.pid();
        s.stop();
        EXPECT_TRUE(lines.contains("collector stopped (signal 15)")) << lines.dump();
        EXPECT_NE(::kill(pid, 0), 0) << "still running after stop";
    }
    root.writeCollector("exit 0", 0644);
    CollectorSupervisor s(collectorOptions(root.path(), "auto"), processes, clock, log);
    s.start();
    EXPECT_EQ(s.state(), CollectorSupervisor::State::Waiting);
    EXPECT_TRUE(lines.contains("wl-collector: Permission denied; restarting it in 1 s")) << lines.dump();
}
