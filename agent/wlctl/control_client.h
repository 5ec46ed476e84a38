// Client of the agent's control socket <root>/var/run/wl-agent.sock.
#ifndef WL_WLCTL_CONTROL_CLIENT_H
#define WL_WLCTL_CONTROL_CLIENT_H

#include <string>

#include "exit_codes.h"

namespace wlctl {

struct ControlReply {
    Exit failure = kExitOk;  // kExitOk when the agent answered
    std::string error;       // a sentence when it did not
    std::string json;        // the answer line
};

constexpr size_t kMaxControlReply = 64u << 20;

// Sends one request line and reads the one reply line.
ControlReply askAgent(const std::string& socketPath, const std::string& request, int timeoutMs);

}  // namespace wlctl

#endif
