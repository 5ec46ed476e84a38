// Keeps a helper program running beside the agent: starts it, restarts it
// with back-off when it ends, gives up when it says it cannot run on this
// host, and stops it with the agent. The collector and the forwarder each
// have one.
#ifndef WL_AGENT_CHILD_SUPERVISOR_H
#define WL_AGENT_CHILD_SUPERVISOR_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "child_process.h"

namespace wlagent {

struct ChildProgram {
    std::string name;               // in the log lines: "collector", "forwarder"
    std::vector<std::string> argv;  // argv[0]: the program's path
    std::string logFile;
    int cannotRunCode = 3;  // the exit status that means "not on this host"
    std::string withoutIt;  // what running without it means, for the log
};

class ChildSupervisor {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    using Log = std::function<void(const std::string&)>;

    enum class State { Idle, Running, Waiting, GaveUp, Missing, Stopped };

    static constexpr int kCannotRunHere = 3;
    static constexpr std::chrono::seconds kFirstDelay{1};
    static constexpr std::chrono::seconds kMaxDelay{60};   // unless setMaxDelay says otherwise
    static constexpr std::chrono::seconds kSteadyRun{60};  // a run this long resets the back-off
    static constexpr std::chrono::milliseconds kStopGrace{3000};

    ChildSupervisor(ChildProgram program, ProcessControl& processes, Clock clock, Log log);
    virtual ~ChildSupervisor() { stop(); }
    ChildSupervisor(const ChildSupervisor&) = delete;
    ChildSupervisor& operator=(const ChildSupervisor&) = delete;

    // The restart back-off doubles up to this (at least 1 s).
    void setMaxDelay(std::chrono::seconds limit);

    void start();
    // From the agent's main loop: notices an exit, restarts when due.
    void poll();
    void stop();

    State state() const { return m_state; }
    pid_t pid() const { return m_pid; }
    const ChildProgram& program() const { return m_program; }

private:
    void launch();
    void scheduleRestart(const std::string& what);
    void onExit(const ChildExit& exit);
    std::string lastLogLine() const;

    ChildProgram m_program;
    ProcessControl& m_processes;
    Clock m_clock;
    Log m_log;
    State m_state = State::Idle;
    pid_t m_pid = -1;
    std::chrono::steady_clock::time_point m_startedAt;
    std::chrono::steady_clock::time_point m_restartAt;
    std::chrono::seconds m_delay = kFirstDelay;
    std::chrono::seconds m_maxDelay = kMaxDelay;
};

}  // namespace wlagent

#endif
