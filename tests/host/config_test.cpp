// The port filter file, the request to the config centre, its notification
// and its reply.
#include "config.h"
#include "host_fixture.h"
#include "orv_xmsg.h"

using host_doubles::calls;
using host_doubles::state;
using Calls = std::vector<std::string>;

namespace {

TEST_F(HostTest, PortFile) {
    // Ports front to back: the file's order reversed.
    struct Case {
        const char* body;
        std::vector<int> ports;
    };
    const Case cases[] = {
        {"[port]\ncount=3\nport_0=80\nport_2=443\n", {443, 80}},
        {"[port]\ncount=2\nport_0=0x1F90\nport_1=010\n", {8, 8080}},
        {"[port]\ncount=3\nport_0=0\nport_1=-5\nport_2=abc\nport_3=22\n", {}},
        {"[other]\ncount=1\nport_0=22\n", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        writePortConfig(c.body);
        EXPECT_EQ(whitelist_load_config(&g_whitelist_context), 0);
        EXPECT_EQ(filteredPorts(), c.ports);
        whitelist_unload_config(&g_whitelist_context);
    }
}

TEST_F(HostTest, OnlyANonEmptyUpdateNotificationAsksForTheModuleSwitch) {
    whitelist_cfg_update(0, 0, 1002, "", 0, &g_whitelist_context);
    whitelist_cfg_update(0, 0, 1003, "x", 1, &g_whitelist_context);
    EXPECT_TRUE(state().requests.empty());
    whitelist_cfg_update(0, 0, 1002, "x", 1, &g_whitelist_context);

    ASSERT_EQ(state().requests.size(), 1u);
    const auto& request = state().requests[0];
    EXPECT_EQ(request.cmd, 1004u);
    EXPECT_EQ(request.wait, 10);
    EXPECT_EQ(request.reply, &whitelist_cfg_reply_fn);
    orv_xmsg_t msg = orv_xmsg_unpack(request.data.data(), request.data.size());
    ASSERT_NE(msg, nullptr);
    EXPECT_STREQ(orv_xmsg_name(msg), "module_switch");
    size_t length = 0;
    const void* value = orv_xmsg_get(msg, "module", &length);
    EXPECT_EQ(std::string(static_cast<const char*>(value), value != nullptr ? length : 0), "module_switch");
    orv_xmsg_release(msg);
}

TEST_F(HostTest, ReplySwitchesTheTimers) {
    const Calls on = {"init_whitelist_timer(ctx)", "init_whitelist_rasp_timer(ctx)"};
    const Calls off = {"uninit_whitelist_timer(ctx)", "uninit_whitelist_rasp_timer(ctx)"};
    const std::string entry = R"({"module_type":"white_list_module","switch_status":)";
    struct Case {
        std::string text;
        int status;
        Calls calls;
    };
    const Case cases[] = {
        {"[" + entry + "1}]", 0, on},
        {"[" + entry + "2}]", 0, off},
        {"[" + entry + "\"1\"}]", 0, {}},
        // The last entry wins.
        {"[" + entry + "1}," + entry + "0}]", 0, {on[0], on[1], off[0], off[1]}},
        {entry + "1}", 0, {}},
        {"[" + entry + "1}]", -1, {}},
        {R"([{"module_type":"other_module","switch_status":1}])", 0, {}},
        {"[" + entry + "1}," + R"({"module_type":"other_module","switch_status":0}])", 0, on},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        host_doubles::reset();
        // The reply is not terminated: what follows its bytes must not count.
        std::string buffer = c.text + "]]garbage";
        whitelist_cfg_reply_fn(c.status, 1004, buffer.data(), static_cast<unsigned int>(c.text.size()));
        EXPECT_EQ(calls(), c.calls);
    }
}

}  // namespace
