// Runtime-application telemetry messages into _RASP_EVENTINFO.
#include <gtest/gtest.h>

#include "log_capture.h"
#include "byte_image.h"
#include "transformer.h"

namespace {

// A message with the given request members and action object.
std::string message(const std::string& request, const std::string& action) {
    return "{\"pid\":4242,\"time\":1700000000,\"data\":{" + request + (request.empty() ? "" : ",") +
           "\"data\":" + action + "}}";
}

class TransformerRaspConversion : public ::testing::Test {
protected:
    _RASP_EVENTINFO fresh() {
        _RASP_EVENTINFO event;
        m_transformer.initRaspInfo(event);
        return event;
    }
    Transformer m_transformer;
};

TEST_F(TransformerRaspConversion, InitSetsDefaultsAndSkipsOneSpare) {
    _RASP_EVENTINFO event;
    event.time = event.pid = 9;
    event.action_type = 3;
    event.type = event.url = event.port = event.model_name = event.spare0 = "x";
    event.spare1[5] = event.spare3[2] = "x";
    event.spare4[1] = 7;
    event.srcPort = 8;
    event.spare2 = 0xABCD;
    event.origin_log_flag = 1;
    event.match_verdict = 0;
    m_transformer.initRaspInfo(event);
    EXPECT_EQ(u64(event.time), 0u);
    EXPECT_EQ(u64(event.pid), 0u);
    EXPECT_EQ(event.action_type, 0);
    EXPECT_EQ(event.type, "");
    EXPECT_EQ(event.url, "");
    EXPECT_EQ(event.port, "");
    EXPECT_EQ(event.model_name, "");
    EXPECT_EQ(event.spare0, "");
    EXPECT_EQ(event.spare1[5], "");
    EXPECT_EQ(event.spare3[2], "");
    EXPECT_EQ(u64(event.spare4[1]), 0u);
    EXPECT_EQ(u64(event.srcPort), 0u);
    EXPECT_EQ(u64(event.spare2), 0xABCDu);
    EXPECT_EQ(event.origin_log_flag, 0);
    EXPECT_EQ(event.match_verdict, 2);
    EXPECT_EQ(event.protocol, "tcp");
    EXPECT_EQ(event.model_status, "FILTER_PEROID");
}

TEST_F(TransformerRaspConversion, RefusedTexts) {
    struct Case {
        std::string text;
        bool logged;
    };
    const Case cases[] = {
        {" " + message("", "{\"action\":\"dns\"}"), false},
        {"\n" + message("", "{\"action\":\"dns\"}"), false},
        {"", false},
        {"[{}]", false},
        {"{\"data\":[\"dns\"", true},
        {"{\"data\":{\"data\":{\"action\":\"dns\"}", false},  // a brace closes, the parse fails
        {"{not json}", false},
        {"{\"data\":{}}", false},
        {"{\"data\":{\"data\":{}}}", false},
        {"{\"data\":\"text\"}", false},
        {"{\"data\":{\"data\":{\"action\":\"dns\"},}}", false},  // parse fails, keys read as absent
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        LogCapture log;
        _RASP_EVENTINFO event = fresh();
        EXPECT_FALSE(m_transformer.judgeEventType(c.text, event));
        EXPECT_EQ(event.action, "");
        if (c.logged) {
            ASSERT_EQ(log.lines().size(), 1u) << log.dump();
            EXPECT_EQ(log.lines()[0].text, "originLog is not a array, not include '}'");
            EXPECT_EQ(log.lines()[0].level, 1);
        } else {
            EXPECT_EQ(log.lines().size(), 0u) << log.dump();
        }
    }
}

TEST_F(TransformerRaspConversion, CommonFieldsAndTrailingText) {
    const std::string text =
        message("\"url\":\"http://app/login\",\"body\":\"u=a\",\"method\":\"POST\",\"appCmd\":\"java -jar app\","
                "\"headers\":{\"Host\": \"app\", \"n\": [1, 2]},\"param\":\"p=1\"",
                "{\"type\":\"file\",\"action\":\"read\",\"data\":\"/etc/hosts\"}") +
        "\n";
    _RASP_EVENTINFO event = fresh();
    ASSERT_TRUE(m_transformer.judgeEventType(text, event));
    EXPECT_EQ(u64(event.pid), 4242u);
    EXPECT_EQ(u64(event.time), 1700000000u);
    EXPECT_EQ(event.action, "read");
    EXPECT_EQ(event.action_type, 4);
    EXPECT_EQ(event.type, "file");
    EXPECT_EQ(event.url, "http://app/login");
    EXPECT_EQ(event.body, "u=a");
    EXPECT_EQ(event.method, "POST");
    EXPECT_EQ(event.appCmd, "java -jar app");
    EXPECT_EQ(event.headers, "{\"Host\":\"app\",\"n\":[1,2]}");
    EXPECT_EQ(event.param, "\"p=1\"");  // a plain string keeps its quotes
    EXPECT_EQ(event.action_data, "/etc/hosts");
    EXPECT_EQ(event.file_path, "/etc/hosts");
    EXPECT_EQ(event.protocol, "tcp");
    EXPECT_EQ(event.match_verdict, 2);
}

TEST_F(TransformerRaspConversion, ActionSubjectGoesToItsField) {
    struct Case {
        const char* action;
        const char* subject;  // JSON of data.data.data, or null for none
        uint16_t actionType;
        std::string _RASP_EVENTINFO::*field;
        const char* expected;
    };
    const Case cases[] = {
        {"dns", "\"example.com\"", 0, &_RASP_EVENTINFO::dns_name, "example.com"},
        {"dns", nullptr, 0, &_RASP_EVENTINFO::dns_name, ""},
        {"execute", "\"ls -l\"", 2, &_RASP_EVENTINFO::appCmd, "ls -l"},
        {"execute", "42", 2, &_RASP_EVENTINFO::appCmd, "42"},
        {"execute", "\"\"", 2, &_RASP_EVENTINFO::appCmd, "from-request"},  // empty keeps the request's
        {"execute", nullptr, 2, &_RASP_EVENTINFO::appCmd, "from-request"},
        {"write", "\"/tmp/w\"", 3, &_RASP_EVENTINFO::file_path, "/tmp/w"},
        {"delete", "\"/tmp/d\"", 5, &_RASP_EVENTINFO::file_path, "/tmp/d"},
        {"hsql", "\"select 1\"", 6, &_RASP_EVENTINFO::sql_text, "select 1"},
        {"sqlserver", "\"select 2\"", 10, &_RASP_EVENTINFO::sql_text, "select 2"},
        {"mysql", "{\"q\":1}", 7, &_RASP_EVENTINFO::sql_text, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.action) + " " + (c.subject ? c.subject : "(none)"));
        std::string action = std::string("{\"action\":\"") + c.action + "\"";
        if (c.subject) action += std::string(",\"data\":") + c.subject;
        action += "}";
        _RASP_EVENTINFO event = fresh();
        EXPECT_TRUE(m_transformer.judgeEventType(message("\"appCmd\":\"from-request\"", action), event));
        EXPECT_EQ(event.action_type, c.actionType);
        EXPECT_EQ(event.*c.field, c.expected);
    }
}

TEST_F(TransformerRaspConversion, AddressAction) {
    _RASP_EVENTINFO event = fresh();
    const std::string text = message("\"ip\":\"10.1.1.1\",\"srcPort\":51000",
                                     "{\"action\":\"address\",\"data\":{\"hostName\":\"db.local\","
                                     "\"url\":\"10.2.2.2\",\"port\":8080}}");
    ASSERT_TRUE(m_transformer.judgeEventType(text, event));
    EXPECT_EQ(event.action_type, 1);
    EXPECT_EQ(event.hostName, "db.local");
    EXPECT_EQ(event.ip, "10.1.1.1");
    EXPECT_EQ(u64(event.srcPort), 51000u);
    EXPECT_EQ(event.dst_ip, "10.2.2.2");
    EXPECT_EQ(event.port, "8080");
    EXPECT_EQ(event.action_data, "");

    // Without a subject the common fields are written all the same.
    _RASP_EVENTINFO bare = fresh();
    EXPECT_FALSE(m_transformer.judgeEventType(message("\"url\":\"/u\"", "{\"action\":\"address\"}"), bare));
    EXPECT_EQ(bare.action_type, 1);
    EXPECT_EQ(bare.url, "/u");
    EXPECT_EQ(u64(bare.pid), 4242u);
}

TEST_F(TransformerRaspConversion, NamesOutsideTheActionRange) {
    _RASP_EVENTINFO unknown = fresh();
    EXPECT_FALSE(m_transformer.judgeEventType(message("\"url\":\"/u\"", "{\"action\":\"connect\"}"), unknown));
    EXPECT_EQ(unknown.action, "connect");
    EXPECT_EQ(unknown.url, "");  // refused before the common fields

    _RASP_EVENTINFO host = fresh();
    EXPECT_TRUE(m_transformer.judgeEventType(
        message("\"url\":\"/u\"", "{\"action\":\"HOST_PORT_LISTENING\",\"data\":\"x\"}"), host));
    EXPECT_EQ(host.action_type, 17);
    EXPECT_EQ(host.url, "/u");
    EXPECT_EQ(host.action_data, "");
}

}  // namespace
