// Discovery: the agent proposes a model for each application it finds
// listening on this host and starts its learning, so that a fresh install
// watches what the host serves without an operator naming it first.
#ifndef WL_AGENT_DISCOVERY_H
#define WL_AGENT_DISCOVERY_H

#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

#include "agent_config.h"

namespace wlagent {

struct DiscoverySettings {
    bool enabled = true;
    int learnMinutes = 1440;                // the learning period of a proposed model
    std::vector<std::string> excludePaths;  // executables under these prefixes are left alone
    std::set<unsigned> excludePorts;        // and these ports
};

// The [discovery] section of the agent's settings; a missing key keeps the
// default. A value that is not usable is refused with a
// sentence in problems (and the default kept).
DiscoverySettings readDiscoverySettings(const AgentConfig& config, std::vector<std::string>& problems);

struct ModelProposal {
    std::string name;  // the executable's file name, made unique among the proposals
    std::string path;
    std::vector<unsigned> ports;  // ascending
};

// From the open-port asset list (kind 5): one proposal per executable that
// listens, leaving out the agent's own processes (ownPid, anything under
// ownRoot), excluded paths and ports, and executables already modelled.
std::vector<ModelProposal> proposeModels(const std::string& openPortsJson, const DiscoverySettings& settings,
                                         const std::string& ownRoot, pid_t ownPid,
                                         const std::set<std::string>& modelledPaths);

// The executables the base catalogue already names.
std::set<std::string> modelledPaths(const std::string& catalogueFile);

// The start command for a proposal, as the task channel takes it.
std::string startCommand(const ModelProposal& proposal, int learnMinutes);

}  // namespace wlagent

#endif
