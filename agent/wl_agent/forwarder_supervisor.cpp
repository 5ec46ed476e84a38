#include "forwarder_supervisor.h"

namespace wlagent {

ChildProgram forwarderSpec(const std::string& root, const std::string& config) {
    ChildProgram program;
    program.name = "forwarder";
    program.argv = {root + "/bin/wl-forward", "--root", root, "--config", config};
    program.logFile = root + "/var/log/agent/forward/forward.log";
    program.cannotRunCode = ChildSupervisor::kCannotRunHere;
    program.withoutIt = "with reports kept in the spool only";
    return program;
}

}  // namespace wlagent
