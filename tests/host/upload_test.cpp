// The envelope around every report, the upload lock, and the failures of the
// agent's header and upload services.
#include <cjson/cJSON.h>

#include <thread>

#include "agent_symbols.h"
#include "host_fixture.h"
#include "whitelist_upload.h"

namespace {

struct Tree {
    explicit Tree(const std::string& text) : root(cJSON_Parse(text.c_str())) {}
    ~Tree() { cJSON_Delete(root); }
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;
    cJSON* root;
};

std::vector<std::string> keys_of(const cJSON* object) {
    std::vector<std::string> keys;
    for (const cJSON* item = object->child; item != nullptr; item = item->next) keys.push_back(item->string);
    return keys;
}

std::string print(const cJSON* item) {
    char* text = cJSON_PrintUnformatted(item);
    std::string out = text;
    cJSON_free(text);
    return out;
}

class HostUploadTest : public HostTest {
protected:
    void SetUp() override {
        HostTest::SetUp();
        ASSERT_EQ(whitelist_init_upload_lock(), 0);
    }
};

TEST_F(HostUploadTest, EnvelopeKeysInOrderAllStrings) {
    agent_symbols::HeaderScript header;
    header.seq = 5000000000ULL;  // above 2^32: a 32-bit print would cut it
    header.send_time = "2026-11-22 01:02:03";
    header.host_uuid = "8f0c-uuid";
    header.host_ip = "172.16.0.9";
    header.ip_list = "172.16.0.9;10.1.1.1";
    agent_symbols::set_header(header);

    ASSERT_EQ(whitelist_upload_data(R"({"model_name":"nginx","status":1})", 2), 0) << m_log.dump();

    auto uploads = agent_symbols::uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].channel, 16);
    EXPECT_EQ(uploads[0].mode, 1);
    EXPECT_EQ(uploads[0].length, static_cast<int>(uploads[0].text.size()));
    Tree envelope(uploads[0].text);
    ASSERT_TRUE(cJSON_IsObject(envelope.root)) << uploads[0].text;
    EXPECT_EQ(keys_of(envelope.root),
              (std::vector<std::string>{"send_time", "host_uuid", "host_ip", "ip_list", "seq_id", "type", "alarm"}));
    const std::pair<const char*, const char*> strings[] = {
        {"send_time", "2026-11-22 01:02:03"}, {"host_uuid", "8f0c-uuid"}, {"host_ip", "172.16.0.9"},
        {"ip_list", "172.16.0.9;10.1.1.1"},   {"seq_id", "5000000000"},  {"type", "alarm"}};
    for (const auto& expected : strings) {
        const cJSON* item = cJSON_GetObjectItemCaseSensitive(envelope.root, expected.first);
        ASSERT_TRUE(cJSON_IsString(item)) << expected.first;
        EXPECT_STREQ(item->valuestring, expected.second);
    }
    EXPECT_EQ(print(cJSON_GetObjectItemCaseSensitive(envelope.root, "alarm")),
              R"({"model_name":"nginx","status":1})");
    EXPECT_TRUE(m_log.contains("upload str: " + uploads[0].text, 4));
}

TEST_F(HostUploadTest, EachTypeNamesItsPayload) {
    const char* names[] = {"model", "learn_status", "alarm", "rasp_model", "rasp_learn_status", "rasp_alarm",
                           "open_proc"};
    for (int type = 0; type < 7; ++type) {
        SCOPED_TRACE(type);
        agent_symbols::reset();
        ASSERT_EQ(whitelist_upload_data(R"({"n":1})", type), 0);
        Tree envelope(agent_symbols::uploads().at(0).text);
        EXPECT_STREQ(cJSON_GetObjectItemCaseSensitive(envelope.root, "type")->valuestring, names[type]);
        EXPECT_TRUE(cJSON_IsObject(cJSON_GetObjectItemCaseSensitive(envelope.root, names[type])));
    }
}

TEST_F(HostUploadTest, ArrayPayloadsStayArrays) {
    for (const char* payload : {R"([{"pid":10,"port":80}])", "[]"}) {
        SCOPED_TRACE(payload);
        agent_symbols::reset();
        ASSERT_EQ(whitelist_upload_data(payload, 6), 0);
        Tree envelope(agent_symbols::uploads().at(0).text);
        EXPECT_EQ(print(cJSON_GetObjectItemCaseSensitive(envelope.root, "open_proc")), payload);
    }
}

TEST_F(HostUploadTest, BadInputSendsNothing) {
    struct Case {
        const char* text;
        int type;
        int level;
        const char* message;
    };
    const Case cases[] = {
        {nullptr, 0, 2, "The upload data is empty"},
        {"{broken", 0, 1, "parse json str fail."},
        {R"({"a":1})", 7, 1, "error type"},
        {R"({"a":1})", -1, 1, "error type"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        m_log.clear();
        EXPECT_EQ(whitelist_upload_data(c.text, c.type), 2);
        EXPECT_EQ(m_log.count(c.message, c.level), 1) << m_log.dump();
    }
    EXPECT_EQ(m_log.count("format upload msg fail, ret:2", 2), 1);
    EXPECT_TRUE(agent_symbols::uploads().empty());
}

TEST_F(HostUploadTest, HeaderErrorIsPassedOn) {
    agent_symbols::HeaderScript header;
    header.result = 5;
    agent_symbols::set_header(header);
    EXPECT_EQ(whitelist_upload_data(R"({"a":1})", 1), 5);
    EXPECT_EQ(m_log.count("get log common header fail, ret 5.\n", 2), 1) << m_log.dump();
    EXPECT_EQ(m_log.count("format upload msg fail, ret:5", 2), 1);
    EXPECT_TRUE(agent_symbols::uploads().empty());
}

TEST_F(HostUploadTest, UploadServiceFailures) {
    struct Case {
        int service_result;
        int expected;
        int failure_level;  // 0: no failure logged
    };
    const Case cases[] = {{0, 0, 0}, {3, 0, 0}, {-1, -1, 4}, {-5, -1, 4}, {-99, -1, 4}, {-100, -1, 2}, {-101, -1, 2}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.service_result);
        agent_symbols::reset();
        agent_symbols::set_upload_result(c.service_result);
        m_log.clear();
        EXPECT_EQ(whitelist_upload_data(R"({"a":1})", 0), c.expected);
        EXPECT_EQ(agent_symbols::uploads().size(), 1u);
        std::string failure = "upload2mgr failed.[" + std::to_string(c.service_result) + "]\n";
        if (c.failure_level == 0) {
            EXPECT_FALSE(m_log.contains("upload2mgr failed."));
            EXPECT_FALSE(m_log.contains("upload to mgr fail"));
        } else {
            EXPECT_EQ(m_log.count(failure, c.failure_level), 1) << m_log.dump();
            EXPECT_EQ(m_log.count("upload to mgr fail, ret:-1", 2), 1);
        }
    }
}

TEST_F(HostUploadTest, UploadsNeverOverlap) {
    agent_symbols::set_upload_delay(std::chrono::milliseconds(5));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 5; ++i) whitelist_upload_data(R"({"n":1})", t);
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(agent_symbols::uploads().size(), 20u);
    EXPECT_EQ(agent_symbols::max_concurrent_uploads(), 1);
}

TEST_F(HostUploadTest, LockInitIsIdempotent) {
    EXPECT_EQ(whitelist_init_upload_lock(), 0);
    whitelist_uninit_upload_lock();
    whitelist_uninit_upload_lock();
    EXPECT_EQ(whitelist_init_upload_lock(), 0);
}

TEST(HostDllLayer, LooksUpInTheGlobalScope) {
    EXPECT_NE(dll_get_addr_ex(nullptr, "_upload2mgr"), nullptr);
    EXPECT_EQ(dll_get_addr_ex(nullptr, "no_such_symbol_here"), nullptr);
    EXPECT_EQ(dll_get_addr_ex(nullptr, ""), nullptr);
    EXPECT_EQ(dll_get_addr_ex(nullptr, nullptr), nullptr);
    EXPECT_EQ(dll_open_ex(), nullptr);
    dll_close_ex(nullptr);
}

}  // namespace
