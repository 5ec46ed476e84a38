// One pass of the main loop: the module switch, the task channel and the
// collector's offline event.
#include "agent_symbols.h"
#include "host_fixture.h"
#include "orv_sync.h"
#include "whitelist.h"
#include "whitelist_impl.h"

using Calls = std::vector<std::string>;

namespace {

const Calls kActivePass = {"cl_ev_loop_nowait(1)", "cl_event_loop_once", "task_loop_once", "orv_event_timedwait(2000)"};
const Calls kSwitchedOffPass = {"cl_ev_loop_nowait(1)", "cl_event_loop_once", "usleep(5000000)"};

class HostMainLoopTest : public HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        g_whitelist_context.task_handle = push_task_reg_handler("WL_HDL", whitelist_task_push_fn, 0);
        g_whitelist_context.asset_ready = 1;
        g_whitelist_context.base_engine_on = 1;
        ASSERT_EQ(orv_event_init(&g_vr_event, 0, 1), 0);
    }

    Calls pass() {
        call_log::clear();
        whitelist_main_loop_pass(&g_whitelist_context);
        return host_doubles::calls();
    }
};

TEST_F(HostMainLoopTest, ModuleSwitch) {
    struct Case {
        uint16_t switching_on;
        uint16_t white_list_on;
        bool off;
    };
    // The high bytes show a read of the wrong width or order.
    for (const Case& c :
         {Case{0, 0, false}, Case{1, 1, false}, Case{1, 0, true}, Case{0x100, 0, true}, Case{1, 0x100, false}}) {
        SCOPED_TRACE(::testing::Message() << c.switching_on << "/" << c.white_list_on);
        ASSERT_TRUE(agent_symbols::set_module_switch(c.switching_on, c.white_list_on));
        EXPECT_EQ(pass(), c.off ? kSwitchedOffPass : kActivePass);
    }
}

TEST_F(HostMainLoopTest, WorkHeldWhileSwitchedOffIsDoneOnTheFirstActivePass) {
    agent_symbols::set_module_switch(1, 0);
    host_doubles::state().tasks.push_back(R"({"opr_code":3,"model_name":"m"})");
    orv_event_set(g_vr_event);
    EXPECT_EQ(pass(), kSwitchedOffPass);
    EXPECT_TRUE(host_doubles::state().task_results.empty());
    EXPECT_FALSE(m_log.contains("vr offline , start reinit"));

    agent_symbols::set_module_switch(1, 1);
    EXPECT_EQ(pass(), (Calls{"cl_ev_loop_nowait(1)", "cl_event_loop_once", "task_loop_once",
                             "whitelist_base_task_interact(3)", "orv_event_timedwait(2000)", "vrccl_action_free",
                             "vrccl_action_init", "reload_vrccl_filter", "orv_event_reset"}));
    EXPECT_EQ(host_doubles::state().task_results, std::vector<unsigned int>{0});
    EXPECT_EQ(m_log.count("vr offline , start reinit", 3), 1);

    EXPECT_EQ(pass(), kActivePass) << "the event was reset";
}

TEST_F(HostMainLoopTest, ACollectorThatFailsAgainIsLoggedAndTheFilterStillReloaded) {
    agent_symbols::set_module_switch(1, 1);
    host_doubles::state().vrccl_init_default = -1;
    orv_event_set(g_vr_event);
    Calls expected = {"cl_ev_loop_nowait(1)", "cl_event_loop_once", "task_loop_once", "orv_event_timedwait(2000)",
                      "vrccl_action_free"};
    for (int attempt = 0; attempt < 20; ++attempt) {
        expected.push_back("vrccl_action_init");
        expected.push_back("usleep(3000000)");
    }
    expected.push_back("reload_vrccl_filter");
    expected.push_back("orv_event_reset");
    EXPECT_EQ(pass(), expected);
    EXPECT_EQ(m_log.count("init vrccl function fail", 2), 1);
    EXPECT_EQ(pass(), kActivePass);
}

}  // namespace
