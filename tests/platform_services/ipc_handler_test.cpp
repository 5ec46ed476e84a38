// The control point: each command number reaches its slot of the table, on
// the registering thread, and the status slots can answer the caller.
#include <errno.h>
#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cl_ev.h"
#include "ipc_handler.h"
#include "kem_ipc.h"
#include "log_capture.h"
#include "temp_install_dir.h"

namespace {

struct Call {
    std::string slot;
    unsigned int cmd;
    std::string text;
    std::thread::id thread;
};
std::mutex g_lock;
std::vector<Call> g_calls;

void remember(const std::string& slot, unsigned int cmd, const std::string& text) {
    std::lock_guard<std::mutex> lock(g_lock);
    g_calls.push_back({slot, cmd, text, std::this_thread::get_id()});
}

void on_status(unsigned long ctx1, unsigned long ctx2, unsigned int cmd) {
    remember("status", cmd, "");
    kem_ipc_response(ctx1, ctx2, cmd, 0, "recv_succ", 9);
}

void on_run_status(unsigned long ctx1, unsigned long ctx2, unsigned int cmd) {
    remember("run_status", cmd, "");
    kem_ipc_response(ctx1, ctx2, cmd, 0, "recv_succ", 9);
}

void on_command(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, const char* msg) {
    remember("command", cmd, msg ? msg : "<null>");
}

class ServicesIpcHandlerTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::lock_guard<std::mutex> lock(g_lock);
        g_calls.clear();
    }
    void TearDown() override { unreg_ipc_handler(); }

    // Sends from another thread, as a tool would, while this thread pumps.
    static std::pair<int, std::string> call(unsigned int cmd, const std::string& text, int wait_ms) {
        auto caller = std::async(std::launch::async, [cmd, text, wait_ms] {
            char answer[32] = {0};
            int n = kem_ipc_call("wl_dbg", cmd, text.data(), static_cast<unsigned int>(text.size()), answer,
                                 sizeof(answer), wait_ms);
            return std::make_pair(n, n > 0 ? std::string(answer, n) : std::string());
        });
        while (caller.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) cl_ev_loop_nowait(1);
        return caller.get();
    }

    TempInstallDir m_dir;
    ipc_handler_table m_table{on_status, on_run_status, nullptr, on_command};
};

TEST_F(ServicesIpcHandlerTest, EachCommandReachesItsSlotOnTheRegisteringThread) {
    ASSERT_EQ(reg_ipc_handler("wl_dbg", &m_table), 0);
    struct Case {
        unsigned int cmd;
        std::string text;
        const char* slot;
        int answerLength;
    };
    const Case cases[] = {
        {IPC_HANDLER_CMD_STATUS, "", "status", 9},
        {IPC_HANDLER_CMD_RUN_STATUS, "", "run_status", 9},
        {IPC_HANDLER_CMD_COMMAND, "{\"opr_code\":8,\"path\":\"/tmp/x\"}", "command", -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.slot);
        {
            std::lock_guard<std::mutex> lock(g_lock);
            g_calls.clear();
        }
        // The command slot doesn't answer, so its caller gives up after a short wait.
        auto result = call(c.cmd, c.text, c.answerLength > 0 ? 10000 : 300);
        EXPECT_EQ(result.first, c.answerLength);
        if (c.answerLength > 0) {
            EXPECT_EQ(result.second, "recv_succ");
        }
        ASSERT_TRUE(waitUntil([] {
            cl_ev_loop_nowait(1);
            std::lock_guard<std::mutex> lock(g_lock);
            return !g_calls.empty();
        }));
        std::lock_guard<std::mutex> lock(g_lock);
        ASSERT_EQ(g_calls.size(), 1u);
        EXPECT_EQ(g_calls[0].slot, c.slot);
        EXPECT_EQ(g_calls[0].cmd, c.cmd);
        EXPECT_EQ(g_calls[0].text, c.text);
        EXPECT_EQ(g_calls[0].thread, std::this_thread::get_id());
    }
}

TEST_F(ServicesIpcHandlerTest, CommandTextIsCutAtItsLength) {
    ASSERT_EQ(reg_ipc_handler("wl_dbg", &m_table), 0);
    call(IPC_HANDLER_CMD_COMMAND, std::string("{\"a\":1}", 7), 200);
    ASSERT_TRUE(waitUntil([] {
        cl_ev_loop_nowait(1);
        std::lock_guard<std::mutex> lock(g_lock);
        return !g_calls.empty();
    }));
    std::lock_guard<std::mutex> lock(g_lock);
    EXPECT_EQ(g_calls[0].text, "{\"a\":1}");
}

TEST_F(ServicesIpcHandlerTest, OtherCommandNumbersAndEmptySlotsCallNothing) {
    ipc_handler_table partial{nullptr, nullptr, nullptr, on_command};
    ASSERT_EQ(reg_ipc_handler("wl_dbg", &partial), 0);
    EXPECT_EQ(call(3, "x", 200).first, -1);
    EXPECT_EQ(call(IPC_HANDLER_CMD_STATUS, "", 200).first, -1);
    call(IPC_HANDLER_CMD_COMMAND, "last", 200);
    ASSERT_TRUE(waitUntil([] {
        cl_ev_loop_nowait(1);
        std::lock_guard<std::mutex> lock(g_lock);
        return !g_calls.empty();
    }));
    std::lock_guard<std::mutex> lock(g_lock);
    ASSERT_EQ(g_calls.size(), 1u) << "only the command made it";
    EXPECT_EQ(g_calls[0].text, "last");
}

TEST_F(ServicesIpcHandlerTest, OneRegistrationAtATime) {
    EXPECT_EQ(reg_ipc_handler(nullptr, &m_table), EINVAL);
    EXPECT_EQ(reg_ipc_handler("wl_dbg", nullptr), EINVAL);
    unreg_ipc_handler();  // nothing registered: no effect
    ASSERT_EQ(reg_ipc_handler("wl_dbg", &m_table), 0);
    EXPECT_EQ(reg_ipc_handler("wl_dbg", &m_table), EEXIST);
    EXPECT_EQ(reg_ipc_handler("other", &m_table), EEXIST);
    unreg_ipc_handler();
    EXPECT_EQ(call(IPC_HANDLER_CMD_STATUS, "", 200).first, -1) << "nobody listens any more";
    EXPECT_EQ(reg_ipc_handler("wl_dbg", &m_table), 0);
    EXPECT_EQ(call(IPC_HANDLER_CMD_STATUS, "", 10000).first, 9);
}

}  // namespace
