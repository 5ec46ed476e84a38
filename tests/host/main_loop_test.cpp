// One pass of the main loop: the module switch, the task channel and the
// collector's offline event.
#include "agent_symbols.h"
#include "host_fixture.h"
#include "orv_sync.h"
#include "task_push.h"
#include "whitelist.h"
#include "whitelist_impl.h"

using host_doubles::calls;
using host_doubles::script;
using Calls = std::vector<std::string>;

namespace {

const Calls kActivePass = {"cl_ev_loop_nowait(1)", "cl_event_loop_once", "task_loop_once",
                           "orv_event_timedwait(2000)"};
const Calls kSwitchedOffPass = {"cl_ev_loop_nowait(1)", "cl_event_loop_once", "usleep(5000000)"};
const Calls kRestart = {"vrccl_action_free", "vrccl_action_init", "reload_vrccl_filter", "orv_event_reset"};

Calls concat(Calls head, const Calls& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

class HostMainLoopTest : public HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        g_whitelist_context.task_handle = push_task_reg_handler("WL_HDL", whitelist_task_push_fn, 0);
        g_whitelist_context.asset_ready = 1;
        g_whitelist_context.base_engine_on = 1;
        ASSERT_EQ(orv_event_init(&g_vr_event, 0, 1), 0);
        host_doubles::clear_calls();
    }

    Calls pass() {
        host_doubles::clear_calls();
        whitelist_main_loop_pass(&g_whitelist_context);
        return calls();
    }
};

TEST_F(HostMainLoopTest, ModuleSwitch) {
    struct Case {
        uint16_t switching_on;
        uint16_t white_list_on;
        bool off;
    };
    const Case cases[] = {{0, 0, false}, {0, 1, false}, {1, 1, false}, {1, 0, true}, {0x100, 0, true}, {1, 0x100, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.switching_on << "/" << c.white_list_on);
        ASSERT_TRUE(agent_symbols::set_module_switch(c.switching_on, c.white_list_on));
        EXPECT_EQ(pass(), c.off ? kSwitchedOffPass : kActivePass);
    }
}

TEST_F(HostMainLoopTest, SwitchedOffLeavesTasksQueued) {
    agent_symbols::set_module_switch(1, 0);
    host_doubles::queue_task(R"({"opr_code":3,"model_name":"m"})");
    pass();
    EXPECT_TRUE(host_doubles::task_results().empty());

    agent_symbols::set_module_switch(1, 1);
    EXPECT_EQ(pass(), concat({"cl_ev_loop_nowait(1)", "cl_event_loop_once", "task_loop_once",
                              "whitelist_base_task_interact(3)"},
                             {"orv_event_timedwait(2000)"}));
    EXPECT_EQ(host_doubles::task_results(), std::vector<unsigned int>{0});
}

TEST_F(HostMainLoopTest, OfflineEventDuringSwitchedOffIsHandledOnTheFirstActivePass) {
    agent_symbols::set_module_switch(1, 0);
    orv_event_set(g_vr_event);
    EXPECT_EQ(pass(), kSwitchedOffPass);
    EXPECT_FALSE(m_log.contains("vr offline , start reinit"));

    agent_symbols::set_module_switch(0, 0);
    EXPECT_EQ(pass(), concat(kActivePass, kRestart));
    EXPECT_EQ(m_log.count("vr offline , start reinit", 3), 1);

    EXPECT_EQ(pass(), kActivePass) << "the event was reset";
}

TEST_F(HostMainLoopTest, CollectorThatStaysDownIsReportedAndTheFilterStillReloads) {
    script().vrccl_init_default = -1;
    orv_event_set(g_vr_event);
    Calls actual = pass();

    EXPECT_EQ(host_doubles::count("vrccl_action_init"), 20);
    EXPECT_EQ(host_doubles::sleeps(), std::vector<unsigned int>(20, 3000000u));
    EXPECT_EQ(m_log.count("init vrccl function fail", 2), 1);
    EXPECT_EQ(Calls(actual.end() - 2, actual.end()), (Calls{"reload_vrccl_filter", "orv_event_reset"}));
}

TEST_F(HostMainLoopTest, OfflineSignalDuringTheRestartIsAbsorbed) {
    script().vrccl_init_results = {-1};
    // The collector drops again while the module is reconnecting.
    script().on_sleep = [](unsigned int) { orv_event_set(g_vr_event); };
    orv_event_set(g_vr_event);
    pass();
    EXPECT_EQ(host_doubles::count("orv_event_reset"), 1);
    EXPECT_EQ(pass(), kActivePass);
}

}  // namespace
