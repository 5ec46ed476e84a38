// The work thread's start-up order, its fatal steps and the tear-down, the
// asset wait, the collector retries and the entry point.
#include <algorithm>
#include <filesystem>

#include "config.h"
#include "host_fixture.h"
#include "whitelist.h"
#include "whitelist_impl.h"

using host_doubles::calls;
using host_doubles::state;
using Calls = std::vector<std::string>;

namespace {

const Calls kAssetQueries = {"get_asset_info_state_v2(5)", "get_asset_info_state_v2(3)", "get_asset_info_state_v2(9)",
                             "get_asset_info_state_v2(7)"};

Calls concat(Calls head, const Calls& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

// The tear-down with every handle made, and the part that runs whatever was made.
const Calls kTeardownWithoutHandles = {"unreg_ipc_handler", "whitelist_msgbus_uninit", "vrccl_action_free",
                                       "autolog_deinit"};
const Calls kFullTeardown = concat({"push_task_unreg_handler(WL_HDL)", "kem_ipc_destroy", "kem_addr_destroy"},
                                   concat(kTeardownWithoutHandles, {"orv_event_destroy"}));

TEST_F(HostTest, StartupReachesTheMainLoopInOrder) {
    ASSERT_EQ(whitelist_startup(&g_whitelist_context), 0) << m_log.dump();
    Calls expected = {"orv_event_init(0,1)",
                      "autolog_init(5)",
                      "reg_ipc_handler(wl_dbg)",
                      "push_task_reg_handler(WL_HDL)",
                      "kem_ipc_create(wl_hdl,0)",
                      "kem_addr_create(acfg,1,2)",
                      "orv_mutex_init",
                      "whitelist_msgbus_init",
                      "whitelist_init_rasp_handler(transmit_rasp_data)",
                      "vrccl_action_init",
                      "whitelist_init_engine"};
    expected = concat(expected, kAssetQueries);
    expected =
        concat(expected, {"upload_openport_process", "whitelist_base_update_open_process",
                          "whitelist_rasp_update_open_process", "kem_ipc_msg_recv", "kem_ipc_make_request(1004)"});
    EXPECT_EQ(calls(), expected);
    EXPECT_EQ(g_whitelist_context.asset_ready, 1);
    EXPECT_EQ(state().msg_fn, &whitelist_cfg_update);
    EXPECT_EQ(m_log.count("work_thread_func init suc.\n", 3), 1) << m_log.dump();
}

TEST_F(HostTest, StartupFatalStepsEndInTheTeardown) {
    const Calls without_handles = concat(kTeardownWithoutHandles, {"orv_event_destroy"});
    const Calls unreg_task = {"push_task_unreg_handler(WL_HDL)"};
    // fails null: the port file is missing; tail: the failing call, then the tear-down.
    struct Case {
        const char* fails;
        int value;
        Calls tail;
        std::vector<std::pair<int, std::string>> messages;
    };
    const Case cases[] = {
        {"orv_event_init",
         12,
         concat({"orv_event_init(0,1)"}, kTeardownWithoutHandles),
         {{1, "init task push start event fail"}}},
        {"reg_ipc_handler",
         5,
         concat({"reg_ipc_handler(wl_dbg)"}, without_handles),
         {{1, "init_ipc_handle failed, ipc name: ht_newhdl, error: 5"}, {1, "init ipc handler fail"}}},
        {"push_task_reg_handler",
         1,
         concat({"push_task_reg_handler(WL_HDL)"}, without_handles),
         {{1, "ipc task reg handler fail"}, {1, "init ipc handler fail"}}},
        {"kem_ipc_create",
         1,
         concat({"kem_ipc_create(wl_hdl,0)"}, concat(unreg_task, without_handles)),
         {{1, "create cfg ipc handle failure!"}, {1, "init ipc handler fail"}}},
        {"kem_addr_create",
         1,
         concat({"kem_addr_create(acfg,1,2)", "push_task_unreg_handler(WL_HDL)", "kem_ipc_destroy"}, without_handles),
         {{1, "create cfg addr failed."}, {1, "init ipc handler fail"}}},
        {nullptr,
         0,
         concat({"kem_addr_create(acfg,1,2)"}, kFullTeardown),
         {{1, "load config failed\n"}, {1, "init port filter list. ret -1"}, {1, "init resource fail"}}},
        // The upload lock and the step both say so.
        {"orv_mutex_init",
         12,
         concat({"orv_mutex_init"}, kFullTeardown),
         {{1, "init upload lock fail"}, {1, "init upload lock fail"}}},
        {"whitelist_msgbus_init", 1, concat({"whitelist_msgbus_init"}, kFullTeardown), {{1, "init msgbus fail"}}},
        {"whitelist_init_rasp_handler",
         -1,
         concat({"whitelist_init_rasp_handler(transmit_rasp_data)"}, kFullTeardown),
         {{1, "init msgbus handler fail"}}},
        {"whitelist_init_engine", -1, concat({"whitelist_init_engine"}, kFullTeardown), {{2, "init engine fail"}}},
        // Reported after the open-port report, when the assets are ready.
        {"kem_ipc_msg_recv",
         -3,
         concat({"upload_openport_process", "whitelist_base_update_open_process", "whitelist_rasp_update_open_process",
                 "kem_ipc_msg_recv"},
                kFullTeardown),
         {{1, "kem_ipc_msg_recv failed, ret: -3."}, {2, "asset collection timeout"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.tail.front());
        host_doubles::reset();
        m_log.clear();
        writePortConfig("[port]\ncount=1\nport_0=443\n");
        if (c.fails != nullptr)
            call_log::script(c.fails, c.value);
        else
            std::filesystem::remove(m_root + "/config/whitelist_port.cfg");

        EXPECT_EQ(whitelist_startup(&g_whitelist_context), -1);

        EXPECT_EQ(host_doubles::calls_from(c.tail.front()), c.tail);
        for (const auto& message : c.messages) {
            const auto times = std::count(c.messages.begin(), c.messages.end(), message);
            EXPECT_EQ(m_log.count(message.second, message.first), times) << message.second << "\n" << m_log.dump();
        }
        EXPECT_EQ(g_vr_event, nullptr);
        EXPECT_EQ(g_whitelist_context.task_handle, nullptr);
        EXPECT_EQ(g_whitelist_context.cfg_ipc, nullptr);
        EXPECT_EQ(g_whitelist_context.cfg_addr, nullptr);
        EXPECT_TRUE(filteredPorts().empty()) << "the port list is freed by the tear-down";
        EXPECT_TRUE(state().requests.empty()) << "no config request after a failed start";
    }
}

TEST_F(HostTest, StartupRetriesTheCollectorButGoesOnWithout) {
    struct Case {
        std::deque<int> results;
        int default_result;
        int tries;
        int sleeps;
    };
    for (const Case& c : {Case{{}, 0, 1, 0}, Case{{-1, -1}, 0, 3, 2}, Case{{}, -1, 20, 20}}) {
        SCOPED_TRACE(c.tries);
        host_doubles::reset();
        m_log.clear();
        state().vrccl_init_results = c.results;
        state().vrccl_init_default = c.default_result;

        ASSERT_EQ(whitelist_startup(&g_whitelist_context), 0) << m_log.dump();

        EXPECT_EQ(host_doubles::count("vrccl_action_init"), c.tries);
        EXPECT_EQ(host_doubles::count("usleep(3000000)"), c.sleeps);
        EXPECT_EQ(m_log.count("init vrccl function fail", 2), c.tries == 20 ? 1 : 0);
        whitelist_teardown(&g_whitelist_context);
    }
}

TEST_F(HostTest, AssetWaitServesCommandsButRefusesStarts) {
    // Kind 9 is collected only at its third query.
    state().asset_state = [](int kind, int call) { return kind == 9 && call < 2 ? 0 : 1; };
    for (const char* msg :
         {R"({"opr_code":1,"model":[]})", R"({"opr_code":101})", R"({"opr_code":2})", R"({"opr_code":104})"}) {
        host_doubles::state().tasks.push_back(msg);
    }

    ASSERT_EQ(whitelist_startup(&g_whitelist_context), 0) << m_log.dump();

    const Calls waiting = {"get_asset_info_state_v2(5)", "get_asset_info_state_v2(3)", "get_asset_info_state_v2(9)",
                           "cl_ev_loop_nowait(1)",       "cl_event_loop_once",         "task_loop_once"};
    Calls expected =
        concat(waiting, {"whitelist_base_task_interact(2)", "whitelist_rasp_task_interact(4)", "usleep(3000000)"});
    expected = concat(expected, concat(waiting, {"usleep(3000000)"}));
    expected = concat(expected, concat(kAssetQueries, {"upload_openport_process"}));
    Calls actual = host_doubles::calls_from("get_asset_info_state_v2(5)");
    actual.resize(std::min(actual.size(), expected.size()));
    EXPECT_EQ(actual, expected);

    EXPECT_EQ(state().task_results, (std::vector<unsigned int>{WL_ERR_FAILED, WL_ERR_FAILED, 0, 0}));
    EXPECT_EQ(m_log.count("The start cmd needs to wait for the asset to be ready", 2), 2);
    EXPECT_EQ(m_log.count("asset finish. times 2", 3), 1);
    EXPECT_EQ(host_doubles::count("whitelist_base_task_start"), 0) << "a refused start is not remembered";
}

TEST_F(HostTest, EntryStartsOneThreadEvenAfterAFailedStart) {
    state().run_thread = true;
    call_log::script("orv_event_init", 1);  // the thread ends at once, through the tear-down

    EXPECT_EQ(orv_whitelist_init(), 0u);
    ASSERT_TRUE(waitUntil([] { return host_doubles::count("autolog_deinit") == 1; })) << m_log.dump();

    EXPECT_EQ(orv_whitelist_init(), 0u);
    EXPECT_EQ(host_doubles::count("cl_ev_create_isolated_thread"), 1);
    EXPECT_EQ(m_log.count("host_state thread already runing.\n", 2), 1);
}

}  // namespace
