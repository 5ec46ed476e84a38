// Alarm lists, both forms: which elements stop the list and which are dropped.
#include <gtest/gtest.h>

#include "log_capture.h"
#include "transformer.h"

namespace {

std::string alarm(const std::string& id, const std::string& keys) {
    return "{\"event_id\":\"" + id + "\",\"model_name\":\"m1\"" + (keys.empty() ? "" : "," + keys) + "}";
}

std::string raspAlarm(const std::string& action, const std::string& keys) {
    return "{\"action\":\"" + action + "\",\"model_name\":\"web\"" + (keys.empty() ? "" : "," + keys) + "}";
}

TEST(TransformerBaseAlarm, StopVersusDrop) {
    struct Case {
        std::string second;
        bool result;
        std::size_t records;
    };
    const std::string good = alarm("DNS_QUERY", "\"query_status\":1,\"query_name\":\"a\",\"query_results\":\"b\"");
    const Case cases[] = {
        {"{\"event_id\":\"DNS_QUERY\"}", false, 1},  // missing model_name stops
        {"5", false, 1},
        {alarm("PROCESS_EXIT", ""), true, 2},  // unknown kind is dropped
        {alarm("DNS_QUERY", "\"query_result\":\"b\""), true, 2},
    };
    Transformer transformer;
    for (const Case& c : cases) {
        std::vector<_BASE_EVENTINFO> events;
        EXPECT_EQ(transformer.judgeAlarmEventType("[" + good + "," + c.second + "," + good + "]", events), c.result)
            << c.second;
        EXPECT_EQ(events.size(), c.records) << c.second;
    }
}

TEST(TransformerRaspAlarm, StopVersusDropAndDefaults) {
    const std::string good = raspAlarm("dns", "\"query_name\":\"example.com\",\"url\":\"/search\"");
    const std::string text = "[" + good + "," + raspAlarm("execute", "\"url\":\"/x\"") + "," +
                             raspAlarm("unknown", "") + "," + good + ",{\"model_name\":\"web\"}," + good + "]";
    Transformer transformer;
    std::vector<_RASP_EVENTINFO> events;
    EXPECT_FALSE(transformer.judgeAlarmEventType(text, events));
    ASSERT_EQ(events.size(), 2u);
    for (const auto& e : events) {
        EXPECT_EQ(e.type, "network");
        EXPECT_EQ(e.model_name, "web");
        EXPECT_EQ(e.dns_name, "example.com");
        EXPECT_EQ(e.match_verdict, 2);
        EXPECT_EQ(e.protocol, "tcp");
    }
}

TEST(TransformerAlarmList, OnlyAnArrayIsAList) {
    const std::pair<std::string, bool> cases[] = {
        {"{\"event_id\":\"DNS_QUERY\",\"action\":\"dns\",\"model_name\":\"m\"}", false},
        {"", false},
        {"not json", false},
        {"x[]", false},
        {"[] trailer", false},
        {"\"[]\"", false},
        {" \n[ ] \t", true},
        {"[]", true},
    };
    Transformer transformer;
    for (const auto& [text, isList] : cases) {
        SCOPED_TRACE(text);
        LogCapture log;
        std::vector<_BASE_EVENTINFO> base(1);
        std::vector<_RASP_EVENTINFO> rasp(1);
        EXPECT_EQ(transformer.judgeAlarmEventType(text, base), isList);
        EXPECT_EQ(transformer.judgeAlarmEventType(text, rasp), isList);
        EXPECT_EQ(base.size(), 1u);
        EXPECT_EQ(rasp.size(), 1u);
        EXPECT_EQ(log.count("originLog is not a array", 1), isList ? 0 : 2) << log.dump();
        EXPECT_EQ(log.lines().size(), isList ? 0u : 2u) << log.dump();
    }
}

TEST(TransformerRaspAlarm, DatabaseActionsCarryTheStatement) {
    const char* actions[] = {"hsql", "mysql", "oracle", "postgre", "sqlserver"};
    std::string text = "[";
    for (const char* action : actions) {
        text += raspAlarm(action, std::string("\"sql_command\":\"drop ") + action + "\",\"url\":\"/db\"") + ",";
    }
    text += raspAlarm("mysql", "\"url\":\"/db\"") + "]";  // without its statement: dropped
    std::vector<_RASP_EVENTINFO> events;
    EXPECT_TRUE(Transformer().judgeAlarmEventType(text, events));
    ASSERT_EQ(events.size(), 5u);
    for (uint16_t i = 0; i < 5; ++i) {
        EXPECT_EQ(events[i].action_type, 6 + i);
        EXPECT_EQ(events[i].type, "sql");
        EXPECT_EQ(events[i].url, "/db");
        EXPECT_EQ(events[i].action_data, std::string("drop ") + actions[i]);
        EXPECT_EQ(events[i].sql_text, std::string("drop ") + actions[i]);
    }
}

TEST(TransformerRaspAlarm, AddressTakesTheDestinationWhole) {
    const std::string text = "[" +
                             raspAlarm("address",
                                       "\"hostName\":\"h\",\"url\":\"/u\",\"dst_port\":0,"
                                       "\"dst_ip\":\"http://1.2.3.4:1/\"") +
                             "]";
    std::vector<_RASP_EVENTINFO> events;
    ASSERT_TRUE(Transformer().judgeAlarmEventType(text, events));
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].dst_ip, "http://1.2.3.4:1/");  // no host reduction, unlike base alarms
    EXPECT_EQ(events[0].port, "");                     // a zero port is no port
    EXPECT_EQ(events[0].hostName, "h");
}

}  // namespace
