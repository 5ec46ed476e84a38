// Alarm lists, both forms: which elements stop the list and which are dropped.
#include <gtest/gtest.h>

#include <stdexcept>

#include <rapidjson/document.h>

#include "log_capture.h"
#include "byte_image.h"
#include "transformer.h"

namespace {

const char* const kProcessKeys = "\"process_path\":\"/bin/app\",\"process_cmd_line\":\"app -d\"";

std::string alarm(const std::string& id, const std::string& keys) {
    return "{\"event_id\":\"" + id + "\",\"model_name\":\"m1\"" + (keys.empty() ? "" : "," + keys) + "}";
}

std::string raspAlarm(const std::string& action, const std::string& keys) {
    return "{\"action\":\"" + action + "\",\"model_name\":\"web\"" + (keys.empty() ? "" : "," + keys) + "}";
}

TEST(TransformerBaseAlarm, StopVersusDrop) {
    struct Case {
        const char* name;
        std::string text;
        bool result;
        std::size_t records;
    };
    const std::string good = alarm("DNS_QUERY", "\"query_status\":1,\"query_name\":\"a\",\"query_results\":\"b\"");
    const Case cases[] = {
        {"second lacks model_name", "[" + good + ",{\"event_id\":\"DNS_QUERY\"}," + good + "]", false, 1},
        {"second lacks event_id", "[" + good + ",{\"model_name\":\"m\"}," + good + "]", false, 1},
        {"second is not an object", "[" + good + ",5," + good + "]", false, 1},
        {"second has an unknown kind", "[" + good + "," + alarm("PROCESS_EXIT", "") + "," + good + "]", true, 2},
        {"second fails inside", "[" + good + "," + alarm("DNS_QUERY", "\"query_result\":\"b\"") + "," + good + "]", true, 2},
        {"empty array", "[]", true, 0},
        {"blanks around", " \n[" + good + "]\t ", true, 1},
    };
    Transformer transformer;
    for (const Case& c : cases) {
        std::vector<_BASE_EVENTINFO> events;
        EXPECT_EQ(transformer.judgeAlarmEventType(c.text, events), c.result) << c.name;
        EXPECT_EQ(events.size(), c.records) << c.name;
    }
}

TEST(TransformerBaseAlarm, NotAnArrayIsLogged) {
    Transformer transformer;
    for (const std::string text : {"{}", "x[]", "[1,]", "", "[] x"}) {
        LogCapture log;
        std::vector<_BASE_EVENTINFO> base;
        std::vector<_RASP_EVENTINFO> rasp;
        EXPECT_FALSE(transformer.judgeAlarmEventType(text, base)) << text;
        EXPECT_FALSE(transformer.judgeAlarmEventType(text, rasp)) << text;
        EXPECT_EQ(log.count("originLog is not a array", 1), 2) << log.dump();
    }
}

TEST(TransformerBaseAlarm, FieldsOfEachKind) {
    const std::string text =
        "[" + alarm("NETWORK_CONNECTION", std::string(kProcessKeys) +
                                              ",\"dst_port\":443,\"src_port\":\"x:5000\","
                                              "\"dst_ip\":\"https://10.9.8.7:443/login\",\"src_ip\":\"10.0.0.5\","
                                              "\"protocol\":\"tcp\"") +
        "," + alarm("PROCESS_CREATION", "\"parent_ppath\":\"/sbin/init\",\"parent_pcmd_line\":\"init\"") + "," +
        alarm("FILE_DELETION", "\"file_name\":\"/tmp/x\",\"process_path\":\"/bin/rm\"") + "," +
        alarm("LISTENING", std::string(kProcessKeys) + ",\"port\":22,\"address\":\"0.0.0.0\",\"protocol\":\"tcp\"") +
        "," + alarm("DNS_QUERY", "\"query_status\":3,\"query_name\":\"q\",\"query_results\":\"r\"") + "," +
        alarm("PROCESS_CREATION", "\"parent_ppath\":\"/p\"") + "]";
    Transformer transformer;
    std::vector<_BASE_EVENTINFO> events;
    ASSERT_TRUE(transformer.judgeAlarmEventType(text, events));
    ASSERT_EQ(events.size(), 5u);  // the last lacks parent_pcmd_line
    for (const auto& e : events) {
        EXPECT_EQ(u64(e.event_time), 0u);
        EXPECT_EQ(wcharToString(e.model_name), "m1");
    }

    const _BASE_EVENTINFO& conn = events[0];  // no sort: list order
    EXPECT_EQ(conn.event_type, 15);
    EXPECT_EQ(conn.detail.connect.dst_port, 443u);
    EXPECT_EQ(conn.detail.connect.src_port, 5000u);
    EXPECT_EQ(wcharToString(conn.detail.connect.dst_ip), "10.9.8.7");
    EXPECT_EQ(wcharToString(conn.detail.connect.src_ip), "10.0.0.5");
    EXPECT_EQ(wcharToString(conn.process_info.process_path), "/bin/app");
    EXPECT_EQ(wcharToString(conn.process_info.process_cmd_line), "app -d");

    const _BASE_EVENTINFO& proc = events[1];
    EXPECT_EQ(proc.event_type, 1);
    EXPECT_EQ(wcharToString(proc.detail.process.process_path), "");  // no process_path: detail empty
    EXPECT_EQ(wcharToString(proc.process_info.process_path), "/sbin/init");
    EXPECT_EQ(wcharToString(proc.process_info.process_cmd_line), "init");

    const _BASE_EVENTINFO& del = events[2];
    EXPECT_EQ(del.event_type, 8);
    EXPECT_EQ(wcharToString(del.detail.file.file_event_name), "FILE_DELETION");
    EXPECT_EQ(wcharToString(del.detail.file.file_name), "/tmp/x");
    EXPECT_EQ(wcharToString(del.process_info.process_path), "/bin/rm");

    const _BASE_EVENTINFO& listen = events[3];
    EXPECT_EQ(listen.detail.listen.port, 22u);
    EXPECT_EQ(wcharToString(listen.detail.listen.address), "0.0.0.0");

    const _BASE_EVENTINFO& dns = events[4];
    EXPECT_EQ(dns.detail.dns.query_status, 3u);
    EXPECT_EQ(wcharToString(dns.detail.dns.query_result), "r");
}

TEST(TransformerBaseAlarm, LoneTrailingSlashThrowsOutOfTheConversion) {
    const std::string text = "[" + alarm("NETWORK_CONNECTION",
                                         "\"dst_port\":1,\"src_port\":2,\"dst_ip\":\"10.0.0.1/\","
                                         "\"src_ip\":\"b\",\"protocol\":\"tcp\"") + "]";
    Transformer transformer;
    std::vector<_BASE_EVENTINFO> events;
    EXPECT_THROW(transformer.judgeAlarmEventType(text, events), std::out_of_range);
    EXPECT_TRUE(events.empty());
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
        EXPECT_EQ(e.action, "dns");
        EXPECT_EQ(e.action_type, 0);
        EXPECT_EQ(e.model_name, "web");
        EXPECT_EQ(e.url, "/search");
        EXPECT_EQ(e.action_data, "example.com");
        EXPECT_EQ(e.dns_name, "example.com");
        EXPECT_EQ(e.match_verdict, 2);
        EXPECT_EQ(e.model_status, "FILTER_PEROID");
        EXPECT_EQ(e.protocol, "tcp");
    }
}

TEST(TransformerRaspAlarm, EachActionClass) {
    struct Case {
        std::string alarm;
        const char* type;
        std::string _RASP_EVENTINFO::*field;
        const char* expected;
    };
    const Case cases[] = {
        {raspAlarm("execute", "\"process_cmd_line\":\"id\",\"url\":\"/u\""), "process", &_RASP_EVENTINFO::appCmd, "id"},
        {raspAlarm("write", "\"file_name\":\"/w\",\"url\":\"/u\""), "file", &_RASP_EVENTINFO::file_path, "/w"},
        {raspAlarm("read", "\"file_name\":\"/r\",\"url\":\"/u\""), "file", &_RASP_EVENTINFO::file_path, "/r"},
        {raspAlarm("oracle", "\"sql_command\":\"drop\",\"url\":\"/u\""), "sql", &_RASP_EVENTINFO::sql_text, "drop"},
        {raspAlarm("address", "\"hostName\":\"h\",\"dst_port\":8443,\"url\":\"/u\",\"dst_ip\":\"http://1.2.3.4:1/\""),
         "network", &_RASP_EVENTINFO::port, "8443"},
        {raspAlarm("address", "\"hostName\":\"h\",\"dst_port\":0,\"url\":\"/u\",\"dst_ip\":\"d\""), "network",
         &_RASP_EVENTINFO::port, ""},
        {raspAlarm("address", "\"hostName\":\"h\",\"dst_port\":4294967295,\"url\":\"/u\",\"dst_ip\":\"d\""), "network",
         &_RASP_EVENTINFO::port, "-1"},
        {raspAlarm("LISTENING", ""), "", &_RASP_EVENTINFO::url, ""},
    };
    Transformer transformer;
    for (const Case& c : cases) {
        std::vector<_RASP_EVENTINFO> events;
        EXPECT_TRUE(transformer.judgeAlarmEventType("[" + c.alarm + "]", events)) << c.alarm;
        ASSERT_EQ(events.size(), 1u) << c.alarm;
        EXPECT_EQ(events[0].type, c.type) << c.alarm;
        EXPECT_EQ(events[0].*c.field, c.expected) << c.alarm;
    }

    // The address alarm's destination is taken whole: no host reduction here.
    std::vector<_RASP_EVENTINFO> events;
    transformer.judgeAlarmEventType("[" + cases[4].alarm + "]", events);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].dst_ip, "http://1.2.3.4:1/");
    EXPECT_EQ(events[0].hostName, "h");
    EXPECT_EQ(events[0].url, "/u");
}

TEST(TransformerRaspAlarm, MissingRequiredKeyDropsAfterTheHeadFields) {
    Transformer transformer;
    _RASP_EVENTINFO event;
    transformer.initRaspInfo(event);
    rapidjson::Document doc;
    doc.Parse(raspAlarm("address", "\"hostName\":\"h\",\"url\":\"/u\",\"dst_ip\":\"d\"").c_str());
    EXPECT_FALSE(transformer.TransformAlarmEvent(&doc, event));
    EXPECT_EQ(event.model_name, "web");
    EXPECT_EQ(event.action, "address");
    EXPECT_EQ(event.action_type, 1);
    EXPECT_EQ(event.type, "");
    EXPECT_EQ(event.hostName, "");
}

}  // namespace
