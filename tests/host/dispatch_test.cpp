// The task-push dispatcher: its gates, result codes and handler table.
#include <cstring>

#include "host_fixture.h"
#include "whitelist.h"
#include "whitelist_impl.h"

using host_doubles::calls;
using host_doubles::script;

namespace {

class HostDispatchTest : public HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        g_whitelist_context.base_engine_on = 1;
        g_whitelist_context.asset_ready = 1;
    }

    static unsigned int push(const char* msg) {
        return whitelist_task_push_fn(0, 0, msg, msg != nullptr ? static_cast<unsigned int>(std::strlen(msg)) : 0);
    }
};

TEST_F(HostDispatchTest, InvalidParameters) {
    EXPECT_EQ(whitelist_task_push_fn(0, 0, nullptr, 10), WL_ERR_INVALID_PARAM);
    EXPECT_EQ(whitelist_task_push_fn(0, 0, R"({"opr_code":2})", 0), WL_ERR_INVALID_PARAM);
    EXPECT_EQ(m_log.count("ipc task push invalid parameter msg", 2), 2);
    EXPECT_TRUE(calls().empty());
}

TEST_F(HostDispatchTest, MalformedCommandsAreRefused) {
    struct Case {
        const char* msg;
        const char* message;
    };
    const Case cases[] = {
        {"{\"opr_code\":", "json parse error"},
        {"not json", "json parse error"},
        {R"({"model_name":"m"})", "invalid json type"},
        {R"({"opr_code":"2"})", "invalid json type"},
        {R"({"opr_code":null})", "invalid json type"},
        {R"([{"opr_code":2}])", "invalid json type"},
        {"7", "invalid json type"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.msg);
        m_log.clear();
        EXPECT_EQ(push(c.msg), WL_ERR_FAILED);
        EXPECT_EQ(m_log.count(c.message, 1), 1) << m_log.dump();
        EXPECT_EQ(m_log.count(std::string("recv msg: ") + c.msg, 3), 1);
    }
    EXPECT_TRUE(calls().empty());
}

TEST_F(HostDispatchTest, UnknownCodesCountAsHandled) {
    // -1 is above 106 taken as unsigned; a number beyond int saturates.
    const std::pair<const char*, const char*> cases[] = {
        {"0", "0"}, {"8", "8"}, {"-1", "-1"}, {"107", "107"}, {"100", "100"}, {"4294967295", "2147483647"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        m_log.clear();
        std::string msg = std::string(R"({"opr_code":)") + c.first + "}";
        EXPECT_EQ(push(msg.c_str()), 0u);
        EXPECT_EQ(m_log.count(std::string("invalid opr code ") + c.second, 3), 1) << m_log.dump();
    }
    EXPECT_TRUE(calls().empty());
}

TEST_F(HostDispatchTest, EngineGateRefusesAllButCodeZero) {
    g_whitelist_context.base_engine_on = 0;
    for (const char* msg : {R"({"opr_code":2})", R"({"opr_code":102})", R"({"opr_code":1})", R"({"opr_code":8})"}) {
        SCOPED_TRACE(msg);
        m_log.clear();
        EXPECT_EQ(push(msg), WL_ERR_FAILED);
        EXPECT_EQ(m_log.count("The engine is shut down and does not accept operations", 3), 1);
    }
    EXPECT_EQ(push(R"({"opr_code":0})"), 0u);
    EXPECT_TRUE(m_log.contains("invalid opr code 0", 3));
    EXPECT_TRUE(calls().empty());
}

TEST_F(HostDispatchTest, AssetGateHoldsOnlyTheStartCommands) {
    g_whitelist_context.asset_ready = 0;
    EXPECT_EQ(push(R"({"opr_code":1})"), WL_ERR_FAILED);
    EXPECT_EQ(push(R"({"opr_code":101})"), WL_ERR_FAILED);
    EXPECT_EQ(m_log.count("The start cmd needs to wait for the asset to be ready", 2), 2);
    EXPECT_TRUE(calls().empty());
    for (const char* msg : {R"({"opr_code":2})", R"({"opr_code":5})", R"({"opr_code":106})"}) {
        EXPECT_EQ(push(msg), 0u) << msg;
    }
    EXPECT_EQ(calls().size(), 3u);
}

TEST_F(HostDispatchTest, EachCodeReachesItsHandlerWithTheTree) {
    struct Case {
        int code;
        const char* call;
        const char* handler;
    };
    const Case cases[] = {
        {1, "whitelist_base_task_start", "whitelist_base_task_start"},
        {2, "whitelist_base_task_interact(2)", "whitelist_base_task_interact"},
        {3, "whitelist_base_task_interact(3)", "whitelist_base_task_interact"},
        {4, "whitelist_base_task_interact(4)", "whitelist_base_task_interact"},
        {5, "whitelist_upload_org_log", "whitelist_upload_org_log"},
        {6, "whitelist_base_task_delete(6)", "whitelist_base_task_delete"},
        {7, "whitelist_base_task_feedback(7)", "whitelist_base_task_feedback"},
        {101, "whitelist_rasp_task_start", "whitelist_rasp_task_start"},
        {102, "whitelist_rasp_task_interact(2)", "whitelist_rasp_task_interact"},
        {103, "whitelist_rasp_task_interact(3)", "whitelist_rasp_task_interact"},
        {104, "whitelist_rasp_task_interact(4)", "whitelist_rasp_task_interact"},
        {105, "whitelist_upload_rasp_org_log", "whitelist_upload_rasp_org_log"},
        {106, "whitelist_rasp_task_delete(6)", "whitelist_rasp_task_delete"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code);
        std::string msg = R"({"opr_code":)" + std::to_string(c.code) + R"(,"model_name":"m)" +
                          std::to_string(c.code) + R"("})";
        for (int handler_result : {0, -1, 2}) {
            host_doubles::reset();
            script().handler_results[c.handler] = handler_result;
            EXPECT_EQ(push(msg.c_str()), handler_result == 0 ? 0u : WL_ERR_FAILED) << handler_result;
            EXPECT_EQ(calls(), std::vector<std::string>{c.call});
            EXPECT_EQ(host_doubles::last_tree(), msg);
        }
    }
}

}  // namespace
