// The work thread's start-up order, its fatal steps and the tear-down, the
// asset wait, the collector retries and the entry point.
#include <algorithm>
#include <functional>

#include "agent_symbols.h"
#include "host_fixture.h"
#include "whitelist.h"
#include "config.h"
#include "whitelist_impl.h"

using host_doubles::calls;
using host_doubles::calls_from;
using host_doubles::script;
using Calls = std::vector<std::string>;

namespace {

const Calls kStartupOrder = {
    "orv_event_init(0,1)",
    "autolog_init(5)",
    "reg_ipc_handler(wl_dbg)",
    "push_task_reg_handler(WL_HDL)",
    "kem_ipc_create(wl_hdl,0)",
    "kem_addr_create(acfg,1,2)",
    "whitelist_msgbus_init",
    "whitelist_init_rasp_handler(transmit_rasp_data)",
    "vrccl_action_init",
    "whitelist_init_engine",
    "get_asset_info_state_v2(5)",
    "get_asset_info_state_v2(3)",
    "get_asset_info_state_v2(9)",
    "get_asset_info_state_v2(7)",
    "upload_openport_process",
    "whitelist_base_update_open_process",
    "whitelist_rasp_update_open_process",
    "kem_ipc_msg_recv",
    "kem_ipc_make_request(1004)",
};

// The tear-down with every handle made, and the part that runs whatever was made.
const Calls kFullTeardown = {"push_task_unreg_handler(WL_HDL)", "kem_ipc_destroy", "kem_addr_destroy",
                             "unreg_ipc_handler", "whitelist_msgbus_uninit", "vrccl_action_free",
                             "autolog_deinit", "orv_event_destroy"};
const Calls kTeardownWithoutHandles = {"unreg_ipc_handler", "whitelist_msgbus_uninit", "vrccl_action_free",
                                       "autolog_deinit"};

Calls concat(Calls head, const Calls& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

struct FatalCase {
    const char* name;
    std::function<void(host_doubles::Script&)> arrange;
    bool remove_port_config;
    // The last call before the tear-down, then the tear-down.
    Calls tail;
    std::vector<std::pair<int, std::string>> messages;
};

const std::vector<FatalCase>& fatal_cases() {
    static const std::vector<FatalCase> cases = {
        {"event", [](host_doubles::Script& s) { s.event_init_result = 12; }, false,
         concat({"orv_event_init(0,1)"}, kTeardownWithoutHandles),
         {{1, "init task push start event fail"}}},
        {"dbg_point", [](host_doubles::Script& s) { s.reg_ipc_handler_result = 17; }, false,
         concat({"reg_ipc_handler(wl_dbg)"}, concat(kTeardownWithoutHandles, {"orv_event_destroy"})),
         {{1, "init_ipc_handle failed, ipc name: ht_newhdl, error: 17"}, {1, "init ipc handler fail"}}},
        {"task_channel", [](host_doubles::Script& s) { s.task_reg_fails = true; }, false,
         concat({"push_task_reg_handler(WL_HDL)"}, concat(kTeardownWithoutHandles, {"orv_event_destroy"})),
         {{1, "ipc task reg handler fail"}, {1, "init ipc handler fail"}}},
        {"cfg_endpoint", [](host_doubles::Script& s) { s.ipc_create_fails = true; }, false,
         {"kem_ipc_create(wl_hdl,0)", "push_task_unreg_handler(WL_HDL)", "unreg_ipc_handler",
          "whitelist_msgbus_uninit", "vrccl_action_free", "autolog_deinit", "orv_event_destroy"},
         {{1, "create cfg ipc handle failure!"}, {1, "init ipc handler fail"}}},
        {"cfg_address", [](host_doubles::Script& s) { s.addr_create_fails = true; }, false,
         {"kem_addr_create(acfg,1,2)", "push_task_unreg_handler(WL_HDL)", "kem_ipc_destroy", "unreg_ipc_handler",
          "whitelist_msgbus_uninit", "vrccl_action_free", "autolog_deinit", "orv_event_destroy"},
         {{1, "create cfg addr failed."}, {1, "init ipc handler fail"}}},
        {"port_file", [](host_doubles::Script&) {}, true, concat({"kem_addr_create(acfg,1,2)"}, kFullTeardown),
         {{1, "load config failed\n"}, {1, "init port filter list. ret -1"}, {1, "init resource fail"}}},
        {"upload_lock", [](host_doubles::Script& s) { s.mutex_init_result = 12; }, false,
         concat({"kem_addr_create(acfg,1,2)"}, kFullTeardown),
         // Once by the lock's own init, once by the start-up step.
         {{1, "init upload lock fail"}, {1, "init upload lock fail"}}},
        {"msgbus", [](host_doubles::Script& s) { s.msgbus_init_result = 0; }, false,
         concat({"whitelist_msgbus_init"}, kFullTeardown), {{1, "init msgbus fail"}}},
        {"rasp_handler", [](host_doubles::Script& s) { s.rasp_handler_result = -1; }, false,
         concat({"whitelist_init_rasp_handler(transmit_rasp_data)"}, kFullTeardown),
         {{1, "init msgbus handler fail"}}},
        {"engine", [](host_doubles::Script& s) { s.init_engine_result = -1; }, false,
         concat({"whitelist_init_engine"}, kFullTeardown), {{2, "init engine fail"}}},
        {"cfg_subscription", [](host_doubles::Script& s) { s.msg_recv_result = -3; }, false,
         concat({"kem_ipc_msg_recv"}, kFullTeardown),
         {{1, "kem_ipc_msg_recv failed, ret: -3."}, {2, "asset collection timeout"}}},
    };
    return cases;
}

class HostStartupTest : public HostTest {};

TEST_F(HostStartupTest, ReachesTheMainLoopInOrder) {
    ASSERT_EQ(whitelist_startup(&g_whitelist_context), 0) << m_log.dump();
    EXPECT_EQ(calls(), kStartupOrder);
    EXPECT_EQ(g_whitelist_context.asset_ready, 1);
    EXPECT_EQ(g_whitelist_context.task_handle, host_doubles::task_handle());
    EXPECT_EQ(g_whitelist_context.cfg_ipc, host_doubles::ipc_handle());
    EXPECT_EQ(g_whitelist_context.cfg_addr, host_doubles::addr_handle());
    EXPECT_NE(g_vr_event, nullptr);
    EXPECT_EQ(host_doubles::subscribed_fn(), &whitelist_cfg_update);
    EXPECT_EQ(host_doubles::subscribed_user(), &g_whitelist_context);
    for (const char* text : {"=initialize_log", "reg ipc success", "work_thread_func init suc.\n",
                             "check_asset_ready, wait asset", "asset finish. times 0", "reg cfg success"}) {
        EXPECT_EQ(m_log.count(text, 3), 1) << text << "\n" << m_log.dump();
    }
}

TEST_F(HostStartupTest, FatalStepsEndInTheTeardown) {
    for (const auto& c : fatal_cases()) {
        SCOPED_TRACE(c.name);
        host_doubles::reset();
        m_log.clear();
        writePortConfig("[port]\ncount=1\nport_0=443\n");
        if (c.remove_port_config) removePortConfig();
        c.arrange(script());

        EXPECT_EQ(whitelist_startup(&g_whitelist_context), -1);

        EXPECT_EQ(calls_from(c.tail.front()), c.tail);
        for (const auto& message : c.messages) {
            int times = static_cast<int>(std::count(c.messages.begin(), c.messages.end(), message));
            EXPECT_EQ(m_log.count(message.second, message.first), times) << message.second << "\n" << m_log.dump();
        }
        EXPECT_EQ(g_vr_event, nullptr);
        EXPECT_EQ(g_whitelist_context.task_handle, nullptr);
        EXPECT_EQ(g_whitelist_context.cfg_ipc, nullptr);
        EXPECT_EQ(g_whitelist_context.cfg_addr, nullptr);
        EXPECT_TRUE(filteredPorts().empty()) << "the port list is freed by the tear-down";
        EXPECT_EQ(host_doubles::requests().size(), 0u) << "no config request after a failed start";
    }
}

TEST_F(HostStartupTest, FailedSubscriptionComesAfterTheOpenPortReport) {
    script().msg_recv_result = 1;
    ASSERT_EQ(whitelist_startup(&g_whitelist_context), -1);
    Calls all = calls();
    auto report = std::find(all.begin(), all.end(), "upload_openport_process");
    auto subscribe = std::find(all.begin(), all.end(), "kem_ipc_msg_recv");
    ASSERT_NE(report, all.end());
    EXPECT_LT(report, subscribe);
    EXPECT_EQ(g_whitelist_context.asset_ready, 1);
}

TEST_F(HostStartupTest, CollectorFailureIsNotFatal) {
    struct Case {
        std::deque<int> results;
        int default_result;
        int expected_tries;
        bool fails;
    };
    const Case cases[] = {
        {{}, 0, 1, false},
        {{-1, -1}, 0, 3, false},
        {{}, -1, 20, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected_tries);
        host_doubles::reset();
        m_log.clear();
        script().vrccl_init_results = c.results;
        script().vrccl_init_default = c.default_result;

        ASSERT_EQ(whitelist_startup(&g_whitelist_context), 0) << m_log.dump();

        EXPECT_EQ(host_doubles::count("vrccl_action_init"), c.expected_tries);
        int failures = c.fails ? c.expected_tries : c.expected_tries - 1;
        EXPECT_EQ(host_doubles::sleeps(), std::vector<unsigned int>(failures, 3000000u));
        EXPECT_EQ(m_log.count("init vrccl function fail", 2), c.fails ? 1 : 0);
        host_doubles::reset();
        whitelist_teardown(&g_whitelist_context);
    }
}

TEST_F(HostStartupTest, AssetWaitServesCommandsButRefusesStarts) {
    // Kind 9 is collected only at its third query.
    script().asset_state = [](int kind, int call) { return kind == 9 && call < 2 ? 0 : 1; };
    host_doubles::queue_task(R"({"opr_code":1,"model":[]})");
    host_doubles::queue_task(R"({"opr_code":101})");
    host_doubles::queue_task(R"({"opr_code":2,"model_name":"m1"})");
    host_doubles::queue_task(R"({"opr_code":104,"model_name":"m2"})");
    bool request_during_wait = false;
    script().on_sleep = [&](unsigned int) { request_during_wait |= !host_doubles::requests().empty(); };

    ASSERT_EQ(whitelist_startup(&g_whitelist_context), 0) << m_log.dump();

    const Calls wait_pass = {"cl_ev_loop_nowait(1)", "cl_event_loop_once", "task_loop_once", "usleep(3000000)"};
    Calls expected = {"get_asset_info_state_v2(5)", "get_asset_info_state_v2(3)", "get_asset_info_state_v2(9)",
                      "cl_ev_loop_nowait(1)", "cl_event_loop_once", "task_loop_once"};
    expected = concat(expected, {"whitelist_base_task_interact(2)", "whitelist_rasp_task_interact(4)",
                                 "usleep(3000000)"});
    expected = concat(expected, {"get_asset_info_state_v2(5)", "get_asset_info_state_v2(3)",
                                 "get_asset_info_state_v2(9)"});
    expected = concat(expected, wait_pass);
    expected = concat(expected, {"get_asset_info_state_v2(5)", "get_asset_info_state_v2(3)",
                                 "get_asset_info_state_v2(9)", "get_asset_info_state_v2(7)",
                                 "upload_openport_process"});
    Calls actual = calls_from("get_asset_info_state_v2(5)");
    actual.resize(std::min(actual.size(), expected.size()));
    EXPECT_EQ(actual, expected);

    EXPECT_EQ(host_doubles::task_results(), (std::vector<unsigned int>{WL_ERR_FAILED, WL_ERR_FAILED, 0, 0}));
    EXPECT_EQ(m_log.count("The start cmd needs to wait for the asset to be ready", 2), 2);
    EXPECT_EQ(m_log.count("asset finish. times 2", 3), 1);
    EXPECT_FALSE(request_during_wait) << "the config centre is asked only after the wait";
    EXPECT_EQ(host_doubles::count("whitelist_base_task_start"), 0) << "a refused start is not remembered";
}

TEST_F(HostStartupTest, StartCommandIsServedOnceAssetsAreReady) {
    ASSERT_EQ(whitelist_startup(&g_whitelist_context), 0);
    host_doubles::queue_task(R"({"opr_code":1,"model":[]})");
    whitelist_main_loop_pass(&g_whitelist_context);
    EXPECT_EQ(host_doubles::task_results(), std::vector<unsigned int>{0});
    EXPECT_EQ(host_doubles::count("whitelist_base_task_start"), 1);
}

TEST_F(HostStartupTest, EntryStartsOneThreadEvenAfterAFailedStart) {
    script().run_thread = true;
    script().event_init_result = 1;  // the thread ends at once, through the tear-down

    EXPECT_EQ(orv_whitelist_init(), 0u);
    ASSERT_TRUE(waitUntil([] { return host_doubles::count("autolog_deinit") == 1; })) << m_log.dump();
    EXPECT_EQ(g_whitelist_context.running, 1) << "the tear-down leaves running set";

    EXPECT_EQ(orv_whitelist_init(), 0u);
    EXPECT_EQ(host_doubles::count("cl_ev_create_isolated_thread"), 1);
    EXPECT_EQ(m_log.count("poll to host_state.\n", 3), 2);
    EXPECT_EQ(m_log.count("host_state thread already runing.\n", 2), 1);
}

TEST_F(HostStartupTest, EntryPassesTheThreadResultOn) {
    script().thread_create_result = 7;
    EXPECT_EQ(orv_whitelist_init(), 7u);
    EXPECT_EQ(g_whitelist_context.running, 1);
}

TEST_F(HostStartupTest, EntryEndsTheProcessWhenNoThreadCanBeMade) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    script().thread_create_result = -1;
    // The process reports 1012; its parent sees the low 8 bits of it.
    EXPECT_EXIT(orv_whitelist_init(), ::testing::ExitedWithCode(1012 & 0xff), "");
}

TEST_F(HostStartupTest, TeardownOfANeverStartedContextIsHarmless) {
    whitelist_teardown(&g_whitelist_context);
    EXPECT_EQ(calls(), kTeardownWithoutHandles);
    whitelist_teardown(&g_whitelist_context);
    EXPECT_EQ(host_doubles::count("autolog_deinit"), 2);
}

}  // namespace
