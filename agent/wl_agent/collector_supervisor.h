// Keeps the action collector wl-collector running beside the agent; exit
// status 3 means it cannot run on this host, and it is not restarted then.
#ifndef WL_AGENT_COLLECTOR_SUPERVISOR_H
#define WL_AGENT_COLLECTOR_SUPERVISOR_H

#include <string>

#include "child_supervisor.h"

namespace wlagent {

struct CollectorOptions {
    std::string binary;   // <root>/vr_agent/wl-collector
    std::string socket;   // <root>/var/run/vrccl.sock
    std::string backend;  // auto, ebpf or portable
    std::string logFile;  // <root>/var/log/agent/vr_agent/collector.log
};

CollectorOptions collectorOptions(const std::string& root, const std::string& backend);
bool isCollectorBackend(const std::string& name);
ChildProgram collectorSpec(const CollectorOptions& options);

class CollectorSupervisor : public ChildSupervisor {
public:
    CollectorSupervisor(const CollectorOptions& options, ProcessControl& processes, Clock clock, Log log)
        : ChildSupervisor(collectorSpec(options), processes, std::move(clock), std::move(log)) {}
};

}  // namespace wlagent

#endif
