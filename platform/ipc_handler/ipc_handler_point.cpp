// The one control point of a process: an endpoint whose messages are routed
// by command number to the registered table.
// The public header comes first so that its functions are exported.
#pragma GCC visibility push(default)
#include "ipc_handler.h"
#pragma GCC visibility pop

#include <cerrno>
#include <memory>
#include <mutex>
#include <string>

#include "kem_ipc.h"
#include "orv_log.h"

namespace {

struct EndpointCloser {
    void operator()(void* ipc) const { kem_ipc_destroy(ipc); }
};
using EndpointPtr = std::unique_ptr<void, EndpointCloser>;

std::mutex g_lock;
EndpointPtr g_endpoint;

void route(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, const void* data, unsigned int size, void* user) {
    auto* table = static_cast<ipc_handler_table*>(user);
    switch (cmd) {
        case IPC_HANDLER_CMD_STATUS:
            if (table->status) table->status(ctx1, ctx2, cmd);
            return;
        case IPC_HANDLER_CMD_RUN_STATUS:
            if (table->run_status) table->run_status(ctx1, ctx2, cmd);
            return;
        case IPC_HANDLER_CMD_COMMAND:
            if (table->command) {
                std::string text = data ? std::string(static_cast<const char*>(data), size) : std::string();
                table->command(ctx1, ctx2, cmd, text.c_str());
            }
            return;
        default:
            if (error_output_check(LOG_LVL_DETAIL)) {
                error_output(LOG_LVL_DETAIL, "ipc_handler", __LINE__, "unknown ipc handler command %u", cmd);
            }
    }
}

}  // namespace

extern "C" {

int reg_ipc_handler(const char* name, ipc_handler_table* table) {
    if (!name || !*name || !table) return EINVAL;
    std::lock_guard<std::mutex> lock(g_lock);
    if (g_endpoint) return EEXIST;
    EndpointPtr endpoint(kem_ipc_create(name, 0));
    if (!endpoint) return errno ? errno : EIO;
    if (kem_ipc_msg_recv(endpoint.get(), route, table) != 0) return EIO;
    g_endpoint = std::move(endpoint);
    return 0;
}

void unreg_ipc_handler(void) {
    EndpointPtr endpoint;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        endpoint = std::move(g_endpoint);
    }
    // Destroyed outside the lock: it joins the receiving thread.
}

}  // extern "C"
