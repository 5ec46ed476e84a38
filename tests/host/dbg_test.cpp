// The "wl_dbg" point: its table, the two status handlers and the command
// handler without gates.
#include "agent_symbols.h"
#include "config.h"
#include "host_fixture.h"
#include "kem_status.h"
#include "whitelist.h"

using host_doubles::calls;

namespace {

class HostDbgTest : public HostTest {};

TEST_F(HostDbgTest, TableIsRegisteredInItsOrder) {
    ASSERT_EQ(init_ipc_handle(&g_whitelist_context), 0);
    ipc_handler_table* table = host_doubles::registered_ipc_table();
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->status, &white_list_status_handler);
    EXPECT_EQ(table->run_status, &white_list_obtain_run_status);
    EXPECT_EQ(table->reserved, nullptr);
    EXPECT_EQ(table->command, &whitelist_dbg_ipc_fn);
    uninitialize_ipc_handler(&g_whitelist_context);
}

TEST_F(HostDbgTest, StatusHandlers) {
    struct Case {
        int before;
        int after;
    };
    for (const Case& c : {Case{1, 2}, Case{0, 0}, Case{2, 2}, Case{3, 3}}) {
        SCOPED_TRACE(c.before);
        host_doubles::reset();
        set_kem_status(c.before);
        white_list_status_handler(11, 22, 1);
        EXPECT_EQ(get_kem_status(), c.after);
        auto responses = host_doubles::responses();
        ASSERT_EQ(responses.size(), 1u);
        EXPECT_EQ(responses[0].ctx1, 11u);
        EXPECT_EQ(responses[0].ctx2, 22u);
        EXPECT_EQ(responses[0].cmd, 1u);
        EXPECT_EQ(responses[0].flags, 0);
        EXPECT_EQ(responses[0].data, "recv_succ");
        EXPECT_EQ(responses[0].size, 9u);
    }
    EXPECT_EQ(m_log.count("white_list_status_handler", 3), 4);

    host_doubles::reset();
    set_kem_status(1);
    white_list_obtain_run_status(5, 6, 2);
    EXPECT_EQ(get_kem_status(), 1);
    ASSERT_EQ(host_doubles::responses().size(), 1u);
    EXPECT_EQ(host_doubles::responses()[0].cmd, 2u);
    EXPECT_EQ(host_doubles::responses()[0].data, "recv_succ");
    EXPECT_EQ(m_log.count("==white_list_obtain_run_status", 3), 1);
}

TEST_F(HostDbgTest, CommandsReachTheirHandlersWithoutGates) {
    // Neither gate of the task channel applies here.
    g_whitelist_context.base_engine_on = 0;
    g_whitelist_context.asset_ready = 0;
    struct Case {
        int code;
        std::vector<std::string> calls;
    };
    const Case cases[] = {
        {0, {"whitelist_engine_switch"}},
        {1, {"whitelist_base_task_start"}},
        {2, {"whitelist_base_task_interact(2)"}},
        {3, {"whitelist_base_task_interact(3)"}},
        {4, {"whitelist_base_task_interact(4)"}},
        {6, {"whitelist_base_task_delete(6)"}},
        {101, {"whitelist_rasp_task_start"}},
        {102, {"whitelist_rasp_task_interact(102)"}},
        {103, {"whitelist_rasp_task_interact(103)"}},
        {104, {"whitelist_rasp_task_interact(104)"}},
        {106, {"whitelist_rasp_task_delete(106)"}},
        {5, {}},
        {7, {}},
        {105, {}},
        {107, {}},
        {-1, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code);
        host_doubles::reset();
        m_log.clear();
        std::string msg = R"({"opr_code":)" + std::to_string(c.code) + "}";
        whitelist_dbg_ipc_fn(0, 0, 4, msg.c_str());
        EXPECT_EQ(calls(), c.calls);
        EXPECT_EQ(m_log.count("recv ipc cmd 4. msg " + msg, 3), 1);
        if (c.calls.empty()) {
            EXPECT_EQ(m_log.lines().size(), 1u) << m_log.dump();
        }
    }
}

TEST_F(HostDbgTest, BadMessages) {
    whitelist_dbg_ipc_fn(0, 0, 4, nullptr);
    EXPECT_EQ(m_log.count("recv msg is null", 1), 1);
    for (const char* msg : {"5", "{broken", R"({"path":"/x"})", R"({"opr_code":"1"})", "[1]"}) {
        SCOPED_TRACE(msg);
        m_log.clear();
        whitelist_dbg_ipc_fn(0, 0, 4, msg);
        EXPECT_EQ(m_log.count("invalid input msg", 2), 1) << m_log.dump();
    }
    EXPECT_TRUE(calls().empty());
}

TEST_F(HostDbgTest, UploadOneFile) {
    whitelist_dbg_ipc_fn(0, 0, 4, R"({"opr_code":8,"path":"/var/base/originLog/1.log"})");
    auto files = agent_symbols::uploaded_files();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].kind, 3);
    EXPECT_EQ(files[0].path, "/var/base/originLog/1.log");
    EXPECT_EQ(m_log.count("start upload file", 3), 1);

    // Without a path there is nothing to upload, and nothing breaks.
    for (const char* msg : {R"({"opr_code":8})", R"({"opr_code":8,"path":7})"}) {
        whitelist_dbg_ipc_fn(0, 0, 4, msg);
    }
    EXPECT_EQ(agent_symbols::uploaded_files().size(), 1u);
    EXPECT_EQ(m_log.count("start upload file", 3), 3);
}

}  // namespace
