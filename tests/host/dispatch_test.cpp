// The task-push dispatcher: its gates, result codes and handler table.
#include <cstring>

#include "host_fixture.h"
#include "whitelist.h"
#include "whitelist_impl.h"

using host_doubles::calls;

namespace {

class HostDispatchTest : public HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        g_whitelist_context.base_engine_on = 1;
        g_whitelist_context.asset_ready = 1;
    }
};

TEST_F(HostDispatchTest, CommandsThatReachNoHandler) {
    // msg nullptr: no message at all; length -1: the message's own.
    struct Case {
        const char* msg;
        int length, engine_on, asset_ready;
        unsigned int result;
        const char* message;
        int level;
    };
    const unsigned int failed = WL_ERR_FAILED;
    const Case cases[] = {
        {nullptr, 10, 1, 1, WL_ERR_INVALID_PARAM, "ipc task push invalid parameter msg", 2},
        {"{\"opr_code\":", -1, 1, 1, failed, "json parse error", 1},
        {R"({"opr_code":"2"})", -1, 1, 1, failed, "invalid json type", 1},
        {R"({"opr_code":2})", -1, 0, 1, failed, "The engine is shut down and does not accept operations", 3},
        {R"({"opr_code":0})", -1, 0, 1, 0, "invalid opr code 0", 3},
        {R"({"opr_code":1})", -1, 1, 0, failed, "The start cmd needs to wait for the asset to be ready", 2},
        {R"({"opr_code":107})", -1, 1, 1, 0, "invalid opr code 107", 3},
        // Above 106 when taken as unsigned.
        {R"({"opr_code":-1})", -1, 1, 1, 0, "invalid opr code -1", 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.msg != nullptr ? c.msg : "null");
        m_log.clear();
        g_whitelist_context.base_engine_on = c.engine_on;
        g_whitelist_context.asset_ready = c.asset_ready;
        unsigned int length = c.length >= 0 ? c.length : static_cast<unsigned int>(std::strlen(c.msg));
        EXPECT_EQ(whitelist_task_push_fn(0, 0, c.msg, length), c.result);
        EXPECT_EQ(m_log.count(c.message, c.level), 1) << m_log.dump();
    }
    EXPECT_TRUE(calls().empty());
}

TEST_F(HostDispatchTest, EachCodeReachesItsHandler) {
    const std::pair<int, const char*> cases[] = {
        {1, "whitelist_base_task_start"},         {2, "whitelist_base_task_interact(2)"},
        {3, "whitelist_base_task_interact(3)"},   {4, "whitelist_base_task_interact(4)"},
        {5, "whitelist_upload_org_log"},          {6, "whitelist_base_task_delete(6)"},
        {7, "whitelist_base_task_feedback(7)"},   {101, "whitelist_rasp_task_start"},
        {102, "whitelist_rasp_task_interact(2)"}, {103, "whitelist_rasp_task_interact(3)"},
        {104, "whitelist_rasp_task_interact(4)"}, {105, "whitelist_upload_rasp_org_log"},
        {106, "whitelist_rasp_task_delete(6)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        std::string handler = std::string(c.second).substr(0, std::string(c.second).find('('));
        for (int handler_result : {WL_TASK_OK, WL_TASK_REFUSED, WL_TASK_BAD_COMMAND}) {
            host_doubles::reset();
            call_log::script(handler, handler_result);
            unsigned int expected = handler_result == WL_TASK_OK ? 0u : WL_ERR_FAILED;
            std::string msg = R"({"opr_code":)" + std::to_string(c.first) + "}";
            EXPECT_EQ(whitelist_task_push_fn(0, 0, msg.c_str(), static_cast<unsigned int>(msg.size())), expected);
            EXPECT_EQ(calls(), std::vector<std::string>{c.second});
        }
    }
}

}  // namespace
