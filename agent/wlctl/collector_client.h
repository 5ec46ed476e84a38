// Asks a running collector for its status over its socket.
#ifndef WL_WLCTL_COLLECTOR_CLIENT_H
#define WL_WLCTL_COLLECTOR_CLIENT_H

#include <cstdint>
#include <string>

namespace wlctl {

struct CollectorReply {
    std::string error;  // empty when answered
    uint32_t version = 0;
    uint32_t pid = 0;
    std::string backend;
    std::string statusJson;
};

CollectorReply queryCollector(const std::string& socketPath, int timeoutMs);

}  // namespace wlctl

#endif
