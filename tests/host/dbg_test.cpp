// The "wl_dbg" point: its table, the two status handlers and the command
// handler without gates.
#include "agent_symbols.h"
#include "config.h"
#include "host_fixture.h"
#include "kem_status.h"
#include "whitelist.h"

using host_doubles::calls;

namespace {

class HostDbgTest : public HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        ASSERT_EQ(init_ipc_handle(&g_whitelist_context), 0);
        m_table = host_doubles::state().ipc_table;
        ASSERT_NE(m_table, nullptr);
        EXPECT_EQ(m_table->reserved, nullptr);
    }
    void TearDown() override {
        uninitialize_ipc_handler(&g_whitelist_context);
        HostTest::TearDown();
    }
    ipc_handler_table* m_table = nullptr;
};

TEST_F(HostDbgTest, StatusHandlersAnswerAndOnlyTheFirstMovesOneToTwo) {
    struct Case {
        bool run_status;
        int before;
        int after;
    };
    for (const Case& c : {Case{false, 1, 2}, Case{false, 0, 0}, Case{false, 3, 3}, Case{true, 1, 1}}) {
        SCOPED_TRACE(::testing::Message() << c.run_status << "/" << c.before);
        host_doubles::reset();
        set_kem_status(c.before);
        (c.run_status ? m_table->run_status : m_table->status)(11, 22, 5);
        EXPECT_EQ(get_kem_status(), c.after);
        EXPECT_EQ(calls(), std::vector<std::string>{"kem_ipc_response(11,22,5,0,recv_succ)"});
    }
}

TEST_F(HostDbgTest, CommandsReachTheirHandlersWithoutGates) {
    // The fresh context has the engine off and no assets: no gate applies here.
    // RASP handlers get the full code.
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"0", {"whitelist_engine_switch"}},
        {"1", {"whitelist_base_task_start"}},
        {"2", {"whitelist_base_task_interact(2)"}},
        {"3", {"whitelist_base_task_interact(3)"}},
        {"4", {"whitelist_base_task_interact(4)"}},
        {"6", {"whitelist_base_task_delete(6)"}},
        {"101", {"whitelist_rasp_task_start"}},
        {"103", {"whitelist_rasp_task_interact(103)"}},
        {"102", {"whitelist_rasp_task_interact(102)"}},
        {"104", {"whitelist_rasp_task_interact(104)"}},
        {"106", {"whitelist_rasp_task_delete(106)"}},
        {"5", {}},
        {"7", {}},
        {"105", {}},
        {"107", {}},
        {"-1", {}},
        {"4294967298", {}},
        {R"(8,"path":"/var/base/originLog/1.log")", {}},
        {R"(8,"path":7)", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        host_doubles::reset();
        m_table->command(0, 0, 4, (R"({"opr_code":)" + std::string(c.first) + "}").c_str());
        EXPECT_EQ(calls(), c.second);
    }
    auto files = agent_symbols::uploaded_files();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].kind, 3);
    EXPECT_EQ(files[0].path, "/var/base/originLog/1.log");
}

TEST_F(HostDbgTest, MessagesWithoutANumericCodeAreRefused) {
    const std::pair<const char*, const char*> cases[] = {
        {"7", "invalid input msg"},    {"not json", "invalid input msg"},
        {"[1]", "invalid input msg"},  {R"({"opr_code":"1"})", "invalid input msg"},
        {"{}", "invalid input msg"},   {R"({"opr_code":null})", "invalid input msg"},
        {nullptr, "recv msg is null"},
    };
    for (const auto& [msg, message] : cases) {
        SCOPED_TRACE(msg != nullptr ? msg : "null");
        host_doubles::reset();
        m_log.clear();
        m_table->command(0, 0, 4, msg);
        EXPECT_TRUE(calls().empty());
        EXPECT_EQ(m_log.count(message, msg != nullptr ? 2 : 1), 1) << m_log.dump();
        EXPECT_EQ(m_log.lines().size(), 2u) << "the receipt and the refusal only";
    }
}

}  // namespace
