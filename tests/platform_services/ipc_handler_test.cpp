// The control point: each command number reaches its slot of the table, on
// the registering thread, and the status slots can answer the caller.
#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <string>
#include <thread>

#include "cl_ev.h"
#include "ipc_handler.h"
#include "kem_ipc.h"
#include "log_capture.h"
#include "temp_dir.h"

namespace {

std::mutex g_lock;
std::string g_call;  // "slot cmd text" of the last call
std::thread::id g_callThread;

void remember(const char* slot, unsigned int cmd, const char* text) {
    std::lock_guard<std::mutex> lock(g_lock);
    g_call = std::string(slot) + " " + std::to_string(cmd) + " " + text;
    g_callThread = std::this_thread::get_id();
}

template <int RunStatus>
void on_status(unsigned long ctx1, unsigned long ctx2, unsigned int cmd) {
    remember(RunStatus ? "run_status" : "status", cmd, "");
    kem_ipc_response(ctx1, ctx2, cmd, 0, "recv_succ", 9);
}

void on_command(unsigned long, unsigned long, unsigned int cmd, const char* msg) {
    remember("command", cmd, msg ? msg : "<null>");
}

TEST(ServicesIpcHandlerTest, EachCommandReachesItsSlotOnTheRegisteringThread) {
    TempInstallRoot dir{"agent"};
    ipc_handler_table table{on_status<0>, on_status<1>, nullptr, on_command};
    ASSERT_EQ(reg_ipc_handler("wl_dbg", &table), 0);
    struct Unregister {
        ~Unregister() { unreg_ipc_handler(); }
    } unregister;
    struct Case {
        unsigned int cmd;
        std::string text;
        std::string answer;  // the command slot doesn't answer: its caller gives up
        std::string call;
    };
    const std::string command = "{\"opr_code\":8,\"path\":\"/tmp/x\"}";
    const Case cases[] = {
        {IPC_HANDLER_CMD_STATUS, "", "recv_succ", "status " + std::to_string(IPC_HANDLER_CMD_STATUS) + " "},
        {IPC_HANDLER_CMD_RUN_STATUS, "", "recv_succ", "run_status " + std::to_string(IPC_HANDLER_CMD_RUN_STATUS) + " "},
        {IPC_HANDLER_CMD_COMMAND, command, "<none>",
         "command " + std::to_string(IPC_HANDLER_CMD_COMMAND) + " " + command},
    };
    for (const Case& c : cases) {
        {
            std::lock_guard<std::mutex> lock(g_lock);
            g_call.clear();
        }
        // Sent from another thread, as a tool would, while this thread pumps.
        auto caller = std::async(std::launch::async, [&c] {
            char answer[32] = {0};
            int n = kem_ipc_call("wl_dbg", c.cmd, c.text.data(), static_cast<unsigned int>(c.text.size()), answer,
                                 sizeof(answer), c.answer == "<none>" ? 300 : 10000);
            return n < 0 ? std::string("<none>") : std::string(answer, n);
        });
        while (caller.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) cl_ev_loop_nowait(1);
        EXPECT_EQ(caller.get(), c.answer) << c.call;
        ASSERT_TRUE(waitUntil([] {
            cl_ev_loop_nowait(1);
            std::lock_guard<std::mutex> lock(g_lock);
            return !g_call.empty();
        }));
        std::lock_guard<std::mutex> lock(g_lock);
        EXPECT_EQ(g_call, c.call);
        EXPECT_EQ(g_callThread, std::this_thread::get_id());
    }
}

}  // namespace
