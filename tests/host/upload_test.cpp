// The envelope around every report, the upload lock, and the failures of the
// agent's header and upload services.
#include <thread>

#include "agent_symbols.h"
#include "host_fixture.h"
#include "whitelist_upload.h"

namespace {

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
    header.ip_list = "172.16.0.9;10.1.1.1";
    agent_symbols::set_header(header);

    ASSERT_EQ(whitelist_upload_data(R"({"model_name":"nginx","status":1})", 2), 0) << m_log.dump();

    auto uploads = agent_symbols::uploads();
    ASSERT_EQ(uploads.size(), 1u);
    EXPECT_EQ(uploads[0].channel, 16);
    EXPECT_EQ(uploads[0].mode, 1);
    EXPECT_EQ(uploads[0].length, static_cast<int>(uploads[0].text.size()));
    EXPECT_EQ(uploads[0].text, R"({"send_time":"2026-11-22 01:02:03","host_uuid":"uuid-test","host_ip":"10.0.0.1",)"
                               R"("ip_list":"172.16.0.9;10.1.1.1","seq_id":"5000000000","type":"alarm",)"
                               R"("alarm":{"model_name":"nginx","status":1}})");
}

TEST_F(HostUploadTest, EachTypeNamesItsPayload) {
    const char* names[] = {"model",      "learn_status", "alarm", "rasp_model", "rasp_learn_status",
                           "rasp_alarm", "open_proc"};
    for (int type = 0; type < 7; ++type) {
        ASSERT_EQ(whitelist_upload_data(R"([{"n":1}])", type), 0);
        std::string text = agent_symbols::uploads().at(type).text;
        EXPECT_EQ(text.substr(text.find("\"type\"")),
                  R"("type":")" + std::string(names[type]) + R"(",")" + names[type] + R"(":[{"n":1}]})");
    }
}

TEST_F(HostUploadTest, BadInputSendsNothing) {
    // in_format: the envelope step reports it too.
    struct Case {
        const char* text;
        int type, result;
        const char* message;
        int level;
        bool in_format;
    };
    const Case cases[] = {
        {nullptr, 0, 2, "The upload data is empty", 2, false},
        {"{broken", 0, 2, "parse json str fail.", 1, false},
        {R"({"a":1})", 7, 2, "error type", 1, true},
        {R"({"a":1})", -1, 2, "error type", 1, true},
        {R"({"a":1})", 1, 5, "get log common header fail, ret 5.\n", 2, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        m_log.clear();
        agent_symbols::HeaderScript header;
        header.result = c.result == 5 ? 5 : 0;
        agent_symbols::set_header(header);
        EXPECT_EQ(whitelist_upload_data(c.text, c.type), c.result);
        EXPECT_EQ(m_log.count(c.message, c.level), 1) << m_log.dump();
        EXPECT_EQ(m_log.count("format upload msg fail, ret:" + std::to_string(c.result), 2), c.in_format);
    }
    EXPECT_TRUE(agent_symbols::uploads().empty());
}

TEST_F(HostUploadTest, UploadServiceFailures) {
    // failure_level 0: no failure logged.
    struct Case {
        int service_result, expected, failure_level;
    };
    for (const Case& c : {Case{3, 0, 0}, Case{-99, -1, 4}, Case{-100, -1, 2}}) {
        SCOPED_TRACE(c.service_result);
        agent_symbols::reset();
        agent_symbols::set_upload_result(c.service_result);
        m_log.clear();
        EXPECT_EQ(whitelist_upload_data(R"({"a":1})", 0), c.expected);
        EXPECT_EQ(agent_symbols::uploads().size(), 1u);
        std::string failure = "upload2mgr failed.[" + std::to_string(c.service_result) + "]\n";
        EXPECT_EQ(m_log.count(failure, c.failure_level), c.failure_level != 0) << m_log.dump();
        EXPECT_EQ(m_log.count("upload to mgr fail, ret:-1", 2), c.failure_level != 0);
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

}  // namespace
