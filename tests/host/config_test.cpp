// The port filter file, the request to the config centre, its notification
// and its reply.
#include <cstring>

#include "config.h"
#include "host_fixture.h"
#include "orv_xmsg.h"

using host_doubles::calls;

namespace {

class HostConfigTest : public HostTest {
protected:
    static void reply(const std::string& text, int status = 0) {
        // The reply is not terminated: what follows the bytes must not count.
        std::string buffer = text + "]]garbage";
        whitelist_cfg_reply_fn(status, 1004, buffer.data(), static_cast<unsigned int>(text.size()));
    }
};

TEST_F(HostConfigTest, PortFile) {
    struct Case {
        const char* body;
        std::vector<int> ports;  // front to back: the file's order reversed
    };
    const Case cases[] = {
        {"[port]\ncount=3\nport_0=80\nport_2=443\n", {443, 80}},
        {"[port]\ncount=2\nport_0=0x1F90\nport_1=010\n", {8, 8080}},
        {"[port]\ncount=4\nport_0=0\nport_1=-5\nport_2=abc\nport_3=22\n", {22}},
        {"[port]\ncount=1\nport_0=22\nport_1=23\n", {22}},
        {"[port]\ncount=0\nport_0=22\n", {}},
        {"[port]\ncount=-3\nport_0=22\n", {}},
        {"[port]\nport_0=22\n", {}},
        {"[other]\ncount=1\nport_0=22\n", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        writePortConfig(c.body);
        EXPECT_EQ(whitelist_load_config(&g_whitelist_context), 0);
        EXPECT_EQ(filteredPorts(), c.ports);
        whitelist_unload_config(&g_whitelist_context);
        EXPECT_TRUE(filteredPorts().empty());
    }
}

TEST_F(HostConfigTest, MissingPortFileIsAnError) {
    removePortConfig();
    EXPECT_EQ(whitelist_load_config(&g_whitelist_context), -1);
    EXPECT_EQ(m_log.count("load config failed\n", 1), 1);
    EXPECT_TRUE(filteredPorts().empty());
}

TEST_F(HostConfigTest, UnloadOfANeverLoadedContextDoesNothing) {
    WhitelistContext context = {};
    whitelist_unload_config(&context);
    EXPECT_EQ(context.port_filter_list.next, nullptr);
}

TEST_F(HostConfigTest, RequestAsksForTheModuleSwitch) {
    g_whitelist_context.cfg_ipc = host_doubles::ipc_handle();
    g_whitelist_context.cfg_addr = host_doubles::addr_handle();
    req_whitelist_conf_from_cfg(&g_whitelist_context);

    auto requests = host_doubles::requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].ipc, host_doubles::ipc_handle());
    EXPECT_EQ(requests[0].addr, host_doubles::addr_handle());
    EXPECT_EQ(requests[0].cmd, 1004u);
    EXPECT_EQ(requests[0].wait, 10);
    EXPECT_EQ(requests[0].reply, &whitelist_cfg_reply_fn);
    orv_xmsg_t msg = orv_xmsg_unpack(requests[0].data.data(), requests[0].data.size());
    ASSERT_NE(msg, nullptr);
    EXPECT_STREQ(orv_xmsg_name(msg), "module_switch");
    size_t length = 0;
    const void* value = orv_xmsg_get(msg, "module", &length);
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(std::string(static_cast<const char*>(value), length), "module_switch");
    orv_xmsg_release(msg);
}

TEST_F(HostConfigTest, NotificationPromptsARequest) {
    struct Case {
        unsigned int cmd;
        const char* data;
        unsigned int size;
        bool asks;
    };
    const Case cases[] = {
        {1002, "x", 1, true},
        {1002, "", 0, false},
        {1002, nullptr, 4, false},
        {1003, "x", 1, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cmd);
        host_doubles::reset();
        m_log.clear();
        whitelist_cfg_update(0, 0, c.cmd, c.data, c.size, &g_whitelist_context);
        EXPECT_EQ(host_doubles::requests().size(), c.asks ? 1u : 0u);
        EXPECT_EQ(m_log.count("cfg_center notify me to update config.", 3), c.asks ? 1 : 0);
        EXPECT_EQ(m_log.count("error param, do not to update config.", 3), c.asks ? 0 : 1);
        EXPECT_EQ(m_log.count("ipc on msg recv, cmd= " + std::to_string(c.cmd) + ", size= " + std::to_string(c.size),
                              4),
                  1);
    }
}

TEST_F(HostConfigTest, NotificationWithoutContextIsRefused) {
    whitelist_cfg_update(0, 0, 1002, "x", 1, nullptr);
    EXPECT_EQ(m_log.count("user_data is NULL, cfg_update failed.", 1), 1);
    EXPECT_TRUE(host_doubles::requests().empty());
}

TEST_F(HostConfigTest, ReplySwitchesTheTimers) {
    const std::vector<std::string> on = {"init_whitelist_timer(ctx)", "init_whitelist_rasp_timer(ctx)"};
    const std::vector<std::string> off = {"uninit_whitelist_timer(ctx)", "uninit_whitelist_rasp_timer(ctx)"};
    auto both = [](std::vector<std::string> a, const std::vector<std::string>& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    struct Case {
        const char* text;
        std::vector<std::string> calls;
    };
    const Case cases[] = {
        {R"([{"module_type":"white_list_module","switch_status":1}])", on},
        {R"([{"module_type":"white_list_module","switch_status":2}])", off},
        {R"([{"module_type":"white_list_module","switch_status":0}])", off},
        {R"([{"module_type":"white_list_module","switch_status":"1"}])", {}},
        {R"([{"module_type":"white_list_module"}])", {}},
        {R"([{"module_type":"white_list_module","switch_status":1},)"
         R"({"module_type":"white_list_module","switch_status":0}])",
         both(on, off)},
        {R"([5,{"module_type":"white_list_module","switch_status":1}])", on},
        {R"([{"module_type":"white_list_module_x","switch_status":1}])", {}},
        {"[]", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        host_doubles::reset();
        reply(c.text);
        EXPECT_EQ(calls(), c.calls);
    }
}

TEST_F(HostConfigTest, ReplyLogs) {
    reply(R"([{"module_type":"av_module","switch_status":1}])");
    EXPECT_EQ(m_log.count("skip module av_module", 3), 1);
    EXPECT_EQ(m_log.count(R"(recv cfg cmd: 1004. data [{"module_type":"av_module","switch_status":1}])", 3), 1)
        << m_log.dump();
    reply(R"([{"switch_status":1}])");
    EXPECT_EQ(m_log.count("skip module ", 3), 2);
    EXPECT_TRUE(calls().empty());
}

TEST_F(HostConfigTest, BadRepliesChangeNothing) {
    struct Case {
        const char* text;
        int status;
        const char* message;
        int level;
    };
    const Case cases[] = {
        {R"({"module_type":"white_list_module","switch_status":1})", 0, "parse data failed", 1},
        {"[{", 0, "parse data failed", 1},
        {"[]", -1, "get conf from cfg centre failed, res: -1.", 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        m_log.clear();
        reply(c.text, c.status);
        EXPECT_EQ(m_log.count(c.message, c.level), 1) << m_log.dump();
    }
    m_log.clear();
    whitelist_cfg_reply_fn(0, 1004, nullptr, 4);
    EXPECT_EQ(m_log.count("get conf from cfg centre failed, res: 0.", 3), 1);
    EXPECT_TRUE(calls().empty());
}

}  // namespace
