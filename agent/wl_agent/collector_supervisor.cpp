#include "collector_supervisor.h"

namespace wlagent {

CollectorOptions collectorOptions(const std::string& root, const std::string& backend) {
    return CollectorOptions{root + "/vr_agent/wl-collector", root + "/var/run/vrccl.sock", backend,
                            root + "/var/log/agent/vr_agent/collector.log"};
}

bool isCollectorBackend(const std::string& name) { return name == "auto" || name == "ebpf" || name == "portable"; }

ChildProgram collectorSpec(const CollectorOptions& options) {
    ChildProgram program;
    program.name = "collector";
    program.argv = {options.binary, "--socket", options.socket};
    if (!options.backend.empty() && options.backend != "auto") {
        program.argv.push_back("--backend");
        program.argv.push_back(options.backend);
    }
    program.logFile = options.logFile;
    program.cannotRunCode = ChildSupervisor::kCannotRunHere;
    program.withoutIt = "without host events";
    return program;
}

}  // namespace wlagent
