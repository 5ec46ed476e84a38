// Starting, watching and stopping a child process. The supervisor uses the
// interface, so its tests can script what the processes do.
#ifndef WL_AGENT_CHILD_PROCESS_H
#define WL_AGENT_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace wlagent {

struct ChildExit {
    bool signalled = false;
    int code = 0;  // exit status, or the signal's number
};

class ProcessControl {
public:
    virtual ~ProcessControl() = default;
    // argv[0] is the program's path. Standard output and error are appended
    // to logFile. The process id, or -1 with error set.
    virtual pid_t spawn(const std::vector<std::string>& argv, const std::string& logFile, std::string& error) = 0;
    // Never blocks: true once the process ended, with how.
    virtual bool reap(pid_t pid, ChildExit& exit) = 0;
    // SIGTERM, up to grace to end, then SIGKILL; reaps it.
    virtual ChildExit terminate(pid_t pid, std::chrono::milliseconds grace) = 0;
};

// Real processes: fork and exec, the child in its own process group (a
// terminal's Ctrl-C reaches the agent only, which stops the child itself)
// and sent SIGTERM if the agent dies.
class SystemProcessControl : public ProcessControl {
public:
    pid_t spawn(const std::vector<std::string>& argv, const std::string& logFile, std::string& error) override;
    bool reap(pid_t pid, ChildExit& exit) override;
    ChildExit terminate(pid_t pid, std::chrono::milliseconds grace) override;
};

}  // namespace wlagent

#endif
