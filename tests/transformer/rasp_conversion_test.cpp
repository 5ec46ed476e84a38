// Runtime-application telemetry messages into _RASP_EVENTINFO.
#include <gtest/gtest.h>

#include "byte_image.h"
#include "event_records.h"
#include "log_capture.h"
#include "transformer.h"

namespace {

class TransformerRaspConversion : public ::testing::Test {
protected:
    Transformer m_transformer;
};

TEST_F(TransformerRaspConversion, RefusedTexts) {
    for (const std::string& text : {" " + telemetryLine("", "{\"action\":\"dns\"}"), std::string("{\"data\":{}}")}) {
        _RASP_EVENTINFO event = raspRecord();
        EXPECT_FALSE(m_transformer.judgeEventType(text, event)) << text;
        EXPECT_EQ(event.action, "");
    }
    LogCapture log;
    _RASP_EVENTINFO event = raspRecord();
    EXPECT_FALSE(m_transformer.judgeEventType("{\"data\":[\"dns\"", event));
    EXPECT_EQ(log.count("originLog is not a array, not include '}'", 1), 1) << log.dump();
}

TEST_F(TransformerRaspConversion, CommonFieldsKeepDefaults) {
    const std::string text =
        telemetryLine("\"url\":\"http://app/login\",\"headers\":{\"Host\": \"app\"},\"param\":\"p=1\"",
                      "{\"type\":\"file\",\"action\":\"read\",\"data\":\"/etc/hosts\"}") +
        "\n";
    _RASP_EVENTINFO event;
    event.match_verdict = 0;
    m_transformer.initRaspInfo(event);
    ASSERT_TRUE(m_transformer.judgeEventType(text, event));
    EXPECT_EQ(u64(event.pid), 4242u);
    EXPECT_EQ(event.action_type, 4);
    EXPECT_EQ(event.url, "http://app/login");
    EXPECT_EQ(event.headers, "{\"Host\":\"app\"}");
    EXPECT_EQ(event.param, "\"p=1\"");  // a plain string keeps its quotes
    EXPECT_EQ(event.model_status, "FILTER_PEROID");
    EXPECT_EQ(event.match_verdict, 2);
}

TEST_F(TransformerRaspConversion, ActionSubjectGoesToItsField) {
    struct Case {
        const char* action;
        const char* subject;  // JSON of the action's data, or null for none
        uint16_t actionType;
        std::string _RASP_EVENTINFO::*field;
        const char* expected;
    };
    const Case cases[] = {
        {"dns", "\"example.com\"", 0, &_RASP_EVENTINFO::dns_name, "example.com"},
        {"execute", "\"\"", 2, &_RASP_EVENTINFO::appCmd, "from-request"},  // empty keeps the request's
        {"delete", "\"/tmp/d\"", 5, &_RASP_EVENTINFO::file_path, "/tmp/d"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.action);
        const std::string action = std::string("{\"action\":\"") + c.action + "\",\"data\":" + c.subject + "}";
        _RASP_EVENTINFO event = raspRecord();
        EXPECT_TRUE(m_transformer.judgeEventType(telemetryLine("\"appCmd\":\"from-request\"", action), event));
        EXPECT_EQ(event.action_type, c.actionType);
        EXPECT_EQ(event.*c.field, c.expected);
    }
}

TEST_F(TransformerRaspConversion, DatabaseActionsCarryTheStatement) {
    const char* actions[] = {"hsql", "mysql", "oracle", "postgre", "sqlserver"};
    for (uint16_t i = 0; i < 5; ++i) {
        SCOPED_TRACE(actions[i]);
        const std::string statement = std::string("select * from t") + static_cast<char>('0' + i);
        _RASP_EVENTINFO event = raspRecord();
        EXPECT_TRUE(m_transformer.judgeEventType(
            telemetryLine("", std::string("{\"action\":\"") + actions[i] + "\",\"data\":\"" + statement + "\"}"),
            event));
        EXPECT_EQ(event.action_type, 6 + i);
        EXPECT_EQ(event.action_data, statement);
        EXPECT_EQ(event.sql_text, statement);

        event = raspRecord();
        EXPECT_TRUE(
            m_transformer.judgeEventType(telemetryLine("", std::string("{\"action\":\"") + actions[i] + "\"}"), event))
            << "true without the statement";
        EXPECT_EQ(event.sql_text, "");
    }
}

TEST_F(TransformerRaspConversion, AddressAction) {
    _RASP_EVENTINFO event = raspRecord();
    const std::string text = telemetryLine("\"ip\":\"10.1.1.1\",\"srcPort\":51000",
                                           "{\"action\":\"address\",\"data\":{\"hostName\":\"db.local\","
                                           "\"url\":\"10.2.2.2\",\"port\":8080}}");
    ASSERT_TRUE(m_transformer.judgeEventType(text, event));
    EXPECT_EQ(event.action_type, 1);
    EXPECT_EQ(event.hostName, "db.local");
    EXPECT_EQ(event.ip, "10.1.1.1");
    EXPECT_EQ(u64(event.srcPort), 51000u);
    EXPECT_EQ(event.dst_ip, "10.2.2.2");
    EXPECT_EQ(event.port, "8080");
}

}  // namespace
