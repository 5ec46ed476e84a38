// Keeps wl-forward, which delivers the spooled reports to the sinks, running
// beside the agent. Exit status 3: it cannot work with these settings.
#ifndef WL_AGENT_FORWARDER_SUPERVISOR_H
#define WL_AGENT_FORWARDER_SUPERVISOR_H

#include <string>

#include "child_supervisor.h"

namespace wlagent {

// <root>/bin/wl-forward --root ROOT --config CONFIG, logging to
// <root>/var/log/agent/forward/forward.log.
ChildProgram forwarderSpec(const std::string& root, const std::string& config);

}  // namespace wlagent

#endif
