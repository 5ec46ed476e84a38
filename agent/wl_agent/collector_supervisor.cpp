#include "collector_supervisor.h"

namespace wlagent {

CollectorOptions collectorOptions(const std::string& root, const std::string& backend) {
    return CollectorOptions{root + "/vr_agent/wl-collector", root + "/var/run/vrccl.sock", backend,
                            root + "/var/log/agent/vr_agent/collector.log"};
}

bool isCollectorBackend(const std::string& name) { return name == "auto" || name == "ebpf" || name == "portable"; }

ChildSpec collectorSpec(const CollectorOptions& options) {
    ChildSpec spec;
    spec.name = "collector";
    spec.argv = {options.binary, "--socket", options.socket};
    if (!options.backend.empty() && options.backend != "auto") {
        spec.argv.push_back("--backend");
        spec.argv.push_back(options.backend);
    }
    spec.logFile = options.logFile;
    spec.cannotRunCode = ChildSupervisor::kCannotRunHere;
    spec.withoutIt = "without host events";
    return spec;
}

}  // namespace wlagent
