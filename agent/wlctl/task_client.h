// Client side of the task-push socket and of the telemetry socket.
#ifndef WL_WLCTL_TASK_CLIENT_H
#define WL_WLCTL_TASK_CLIENT_H

#include <cstdint>
#include <string>

namespace wlctl {

struct PushResult {
    bool delivered = false;
    uint32_t code = 0;
    std::string error;  // when not delivered
};

// Sends one JSON command to the named handler and waits for its result code.
PushResult pushTask(const std::string& socketPath, const std::string& handler, const std::string& json,
                    int timeoutSeconds);

// Writes one line of telemetry. Empty string on success, else the error.
std::string sendTelemetry(const std::string& socketPath, const std::string& json);

// Text for a result code of the module.
std::string describeCode(uint32_t code);

}  // namespace wlctl

#endif
