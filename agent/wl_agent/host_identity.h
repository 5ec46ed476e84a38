// What the report envelope says about this host.
#ifndef WL_AGENT_HOST_IDENTITY_H
#define WL_AGENT_HOST_IDENTITY_H

#include <string>
#include <vector>

namespace wlagent {

struct HostIdentity {
    std::string uuid;    // /etc/machine-id, else the host name
    std::string hostIp;  // first IPv4 address that isn't loopback, else 127.0.0.1
    std::string ipList;  // all IPv4 addresses, comma-separated
};

HostIdentity readHostIdentity();
// "YYYY-MM-DD HH:MM:SS" in local time.
std::string currentTimeText();

}  // namespace wlagent

#endif
