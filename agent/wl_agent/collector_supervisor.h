// Keeps the action collector wl-collector running beside the agent: starts
// it, restarts it with back-off when it ends, gives up when it says it
// cannot run on this host (exit status 3), and stops it with the agent.
#ifndef WL_AGENT_COLLECTOR_SUPERVISOR_H
#define WL_AGENT_COLLECTOR_SUPERVISOR_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

#include "child_process.h"

namespace wlagent {

struct CollectorOptions {
    std::string binary;   // <root>/vr_agent/wl-collector
    std::string socket;   // <root>/var/run/vrccl.sock
    std::string backend;  // auto, ebpf or portable
    std::string logFile;  // <root>/var/log/agent/vr_agent/collector.log
};

CollectorOptions collectorOptions(const std::string& root, const std::string& backend);
bool isCollectorBackend(const std::string& name);

class CollectorSupervisor {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    using Log = std::function<void(const std::string&)>;

    enum class State { Idle, Running, Waiting, GaveUp, Missing, Stopped };

    static constexpr int kCannotRunHere = 3;
    static constexpr std::chrono::seconds kFirstDelay{1};
    static constexpr std::chrono::seconds kMaxDelay{60};
    static constexpr std::chrono::seconds kSteadyRun{60};  // a run this long resets the back-off
    static constexpr std::chrono::milliseconds kStopGrace{3000};

    CollectorSupervisor(CollectorOptions options, ProcessControl& processes, Clock clock, Log log);
    ~CollectorSupervisor() { stop(); }
    CollectorSupervisor(const CollectorSupervisor&) = delete;
    CollectorSupervisor& operator=(const CollectorSupervisor&) = delete;

    void start();
    // From the agent's main loop: notices an exit, restarts when due.
    void poll();
    void stop();

    State state() const { return m_state; }
    pid_t pid() const { return m_pid; }

private:
    void launch();
    void scheduleRestart(const std::string& what);
    void onExit(const ChildExit& exit);
    std::string lastLogLine() const;

    CollectorOptions m_options;
    ProcessControl& m_processes;
    Clock m_clock;
    Log m_log;
    State m_state = State::Idle;
    pid_t m_pid = -1;
    std::chrono::steady_clock::time_point m_startedAt;
    std::chrono::steady_clock::time_point m_restartAt;
    std::chrono::seconds m_delay = kFirstDelay;
};

}  // namespace wlagent

#endif
