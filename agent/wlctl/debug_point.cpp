#include "debug_point.h"

#include <cstring>

#include "dirutils.h"
#include "ipc_handler.h"
#include "kem_ipc.h"

namespace wlctl {

std::string sendToDebugPoint(const std::string& root, const std::string& json) {
    dirutils_set_install_dir((root + "/lib").c_str());
    char answer[32] = {0};
    // The run-status call only says the point is there; it changes nothing.
    int n = kem_ipc_call("wl_dbg", IPC_HANDLER_CMD_RUN_STATUS, nullptr, 0, answer, sizeof answer - 1, 3000);
    if (n < 0 || std::strncmp(answer, "recv_succ", 9) != 0) {
        return "the debug point wl_dbg does not answer under " + root + " (is wl-agent running with this root?)";
    }
    // The command handler never replies: a short wait is only for the send.
    kem_ipc_call("wl_dbg", IPC_HANDLER_CMD_COMMAND, json.data(), static_cast<unsigned>(json.size()), nullptr, 0, 300);
    return "";
}

}  // namespace wlctl
