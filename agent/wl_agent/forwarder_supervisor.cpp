#include "forwarder_supervisor.h"

namespace wlagent {

ChildSpec forwarderSpec(const std::string& root, const std::string& config) {
    ChildSpec spec;
    spec.name = "forwarder";
    spec.argv = {root + "/bin/wl-forward", "--root", root, "--config", config};
    spec.logFile = root + "/var/log/agent/forward/forward.log";
    spec.cannotRunCode = ChildSupervisor::kCannotRunHere;
    spec.withoutIt = "with reports kept in the spool only";
    return spec;
}

}  // namespace wlagent
