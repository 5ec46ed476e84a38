// The asset lists the module waits for and reports from, built from /proc:
// 3 processes, 5 listening ports, 7 applications behind them, 9 further
// applications (none known on a plain host).
#ifndef WL_AGENT_ASSET_LISTS_H
#define WL_AGENT_ASSET_LISTS_H

#include <map>
#include <string>
#include <vector>

#include "proc_scan.h"

namespace wlagent {

struct AssetLists {
    std::string processes;     // kind 3
    std::string openPorts;     // kind 5
    std::string applications;  // kind 7
    std::string moreApps;      // kind 9
};

AssetLists buildAssetLists(const std::vector<ProcessInfo>& processes, const std::vector<ListeningSocket>& sockets,
                           const std::map<unsigned long, int>& owners);

// Scans /proc and publishes the four kinds to the asset library. Returns the
// number of listening ports found, -1 on failure; openPorts, when given,
// receives the open-port list that was published.
int collectAndPublishAssets(std::string* openPorts = nullptr);

}  // namespace wlagent

#endif
