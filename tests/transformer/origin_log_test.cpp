// Origin logs: the envelope, which events are kept, and their order.
#include <gtest/gtest.h>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "log_capture.h"
#include "byte_image.h"
#include "transformer.h"
#include "wl_clock.h"

namespace {

// Wraps each event object as the text of a "message" member.
std::string envelope(const std::vector<std::string>& events) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartArray();
    for (const std::string& event : events) {
        writer.StartObject();
        writer.Key("source");
        writer.String("collector");
        writer.Key("message");
        writer.String(event.c_str());
        writer.EndObject();
    }
    writer.EndArray();
    return buffer.GetString();
}

const char* const kProcessKeys =
    "\"process_id\":11,\"process_guid\":\"g\",\"process_path\":\"/bin/app\",\"process_md5\":\"m\","
    "\"process_cmd_line\":\"app -x\",\"process_user_name\":\"root\"";

std::string event(const std::string& id, const std::string& keys) {
    return "{\"event_id\":\"" + id + "\"" + (keys.empty() ? "" : "," + keys) + "}";
}

time_t fixedTime(time_t* out) {
    if (out) *out = 1234567;
    return 1234567;
}

class TransformerOriginLog : public ::testing::Test {
protected:
    void SetUp() override { g_wl_clock.time_fn = &fixedTime; }
    void TearDown() override { wl_clock_reset(); }

    bool convert(const std::string& text) { return m_transformer.judgeEventType(text, m_events); }

    Transformer m_transformer;
    std::vector<_BASE_EVENTINFO> m_events;
};

TEST_F(TransformerOriginLog, EnvelopeRefusalsAreLoggedAndKeepTheVector) {
    struct Case {
        std::string text;
        const char* message;
    };
    const Case cases[] = {
        {"{}", "originLog is not a array, not include '['"},
        {"", "originLog is not a array, not include '['"},
        {"log [ {\"message\":\"x\"}", "originLog is not a array, not include ']'"},
        {"[{\"message\":\"{}\"},]", "originLog is not a array"},
        {"][", "originLog is not a array, not include ']'"},
        {"[1] trailing ] [", "originLog is not a array"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        LogCapture log;
        m_events.resize(1);
        m_events[0].event_type = 99;
        EXPECT_FALSE(convert(c.text));
        ASSERT_EQ(m_events.size(), 1u);
        EXPECT_EQ(m_events[0].event_type, 99);
        const std::vector<LoggedLine> lines = log.lines();
        ASSERT_EQ(lines.size(), 1u) << log.dump();
        EXPECT_EQ(lines[0].text, c.message);
        EXPECT_EQ(lines[0].level, 1);
        EXPECT_EQ(lines[0].source, "transformer");
    }
}

TEST_F(TransformerOriginLog, TextAroundTheArrayIsIgnored) {
    const std::string text = "2024-01-01 header: " + envelope({event("dns", "")}) + " trailer\n";
    LogCapture log;
    EXPECT_TRUE(convert(text));
    ASSERT_EQ(m_events.size(), 1u);
    EXPECT_EQ(m_events[0].event_type, 0);
    EXPECT_EQ(u64(m_events[0].event_time), 1234567u);
    EXPECT_EQ(log.lines().size(), 0u) << log.dump();
}

TEST_F(TransformerOriginLog, EmptyArrayGivesTrueAndNothing) {
    EXPECT_TRUE(convert("[]"));
    EXPECT_TRUE(m_events.empty());
}

TEST_F(TransformerOriginLog, ElementsWithoutAnEventAreSkippedSilently) {
    LogCapture log;
    const std::string text = "[1, \"s\", {\"other\":1}, {\"message\":\"not json\"}, {\"message\":\"[1,2]\"},"
                             " {\"message\":\"{\\\"id\\\":1}\"}, {\"message\":12},"
                             " {\"message\":\"{\\\"event_id\\\":513}\"},"
                             " {\"message\":\"{\\\"event_id\\\":\\\"dns\\\"}\"}]";
    EXPECT_TRUE(convert(text));
    ASSERT_EQ(m_events.size(), 1u);  // only the "dns" one: 513 is not looked up by number
    EXPECT_EQ(m_events[0].event_type, 0);
    EXPECT_EQ(log.lines().size(), 0u) << log.dump();
}

TEST_F(TransformerOriginLog, SortedByKindIncludingEarlierContent) {
    const std::string file = event("FILE_CREATION", std::string(kProcessKeys) + ",\"file_name\":\"/f\"");
    const std::string process = event("PROCESS_CREATION", "\"parent_pid\":1,\"parent_ppath\":\"/sbin/init\"");
    const std::string dns =
        event("DNS_QUERY", std::string(kProcessKeys) + ",\"query_status\":0,\"query_name\":\"a\",\"query_result\":\"b\"");
    m_events.resize(1);
    m_events[0].event_type = 9;
    EXPECT_TRUE(convert(envelope({dns, process, file})));
    std::vector<int> kinds;
    for (const auto& e : m_events) kinds.push_back(e.event_type);
    EXPECT_EQ(kinds, (std::vector<int>{1, 6, 9, 16}));
}

TEST_F(TransformerOriginLog, RequiredKeysDecideWhatIsKept) {
    struct Case {
        const char* name;
        std::string event;
        bool kept;
    };
    const std::string conn = std::string(kProcessKeys) + ",\"dst_ip\":\"1.1.1.1\",\"src_ip\":\"2.2.2.2\",\"protocol\":\"tcp\"";
    const Case cases[] = {
        {"process with parent", event("PROCESS_CREATION", "\"parent_pid\":1,\"parent_ppath\":\"/p\""), true},
        {"process without parent path", event("PROCESS_CREATION", std::string(kProcessKeys) + ",\"parent_pid\":1"), false},
        {"deletion", event("FILE_DELETION", "\"process_id\":3,\"process_path\":\"/x\""), true},
        {"deletion without path", event("FILE_DELETION", "\"process_id\":3,\"file_name\":\"/f\""), false},
        {"connection without src_port", event("NETWORK_CONNECTION", conn + ",\"dst_port\":80"), true},
        {"connection without dst_port", event("NETWORK_CONNECTION", conn + ",\"src_port\":80"), false},
        {"dns without result", event("DNS_QUERY", "\"query_status\":0,\"query_name\":\"a\""), false},
        {"listening without protocol", event("LISTENING", "\"dst_port\":22,\"dst_ip\":\"0.0.0.0\""), false},
        {"listening", event("HOST_PORT_LISTENING", "\"dst_port\":22,\"dst_ip\":\"0.0.0.0\",\"protocol\":null"), true},
        {"file without anything", event("FILE_MODIFICATION", ""), true},
        {"action name", event("execute", ""), true},
        {"unknown name", event("PROCESS_EXIT", kProcessKeys), false},
    };
    for (const Case& c : cases) {
        m_events.clear();
        EXPECT_TRUE(convert(envelope({c.event})));
        EXPECT_EQ(m_events.size(), c.kept ? 1u : 0u) << c.name;
    }
}

TEST_F(TransformerOriginLog, ProcessCreationFillsParentEvenWhenChildIsIncomplete) {
    const std::string e = event("PROCESS_CREATION",
                                "\"process_id\":5,\"process_path\":\"/bin/child\",\"process_user_name\":\"u\","
                                "\"parent_pid\":\"host:77\",\"parent_ppath\":\"/bin/parent\",\"parent_pcmd_line\":"
                                "\"parent -d\",\"parent_psha256\":\"abc\"");
    ASSERT_TRUE(convert(envelope({e})));
    ASSERT_EQ(m_events.size(), 1u);
    const _BASE_EVENTINFO& r = m_events[0];
    EXPECT_EQ(r.event_type, 1);
    EXPECT_EQ(u64(r.detail.process.process_id), 0u);  // no process_cmd_line: the child stays empty
    EXPECT_EQ(wcharToString(r.detail.process.process_path), "");
    EXPECT_EQ(u64(r.process_info.process_id), 77u);
    EXPECT_EQ(wcharToString(r.process_info.process_path), "/bin/parent");
    EXPECT_EQ(wcharToString(r.process_info.process_cmd_line), "parent -d");
    EXPECT_EQ(wcharToString(r.process_info.process_sha256), "abc");
    EXPECT_EQ(wcharToString(r.process_info.process_md5), "");
}

TEST_F(TransformerOriginLog, FieldsOfEachKind) {
    const std::string renaming = event("FILE_RENAMING", std::string(kProcessKeys) +
                                                            ",\"process_sha256\":\"s256\",\"file_name\":\"/new\","
                                                            "\"file_group_name\":\"g\",\"file_user_name\":\"u\","
                                                            "\"file_permissions\":\"0644\",\"file_md5\":\"fm\","
                                                            "\"prev_file_name\":\"" + std::string(40, 'o') + "\"");
    const std::string connection =
        event("NETWORK_CONNECTION", std::string(kProcessKeys) +
                                        ",\"dst_port\":\"10.0.0.1:443\",\"src_port\":4294967297,"
                                        "\"dst_ip\":\"10.0.0.1\",\"src_ip\":\"10.0.0.2\",\"protocol\":\"tcp6\"");
    const std::string listening =
        event("LISTENING", "\"dst_port\":8080,\"dst_ip\":\"::\",\"protocol\":\"udp\",\"port\":1,\"address\":\"x\"");
    const std::string creation = event("FILE_CREATION", std::string(kProcessKeys) +
                                                            ",\"file_group_name\":\"g\",\"file_user_name\":\"u\"");
    ASSERT_TRUE(convert(envelope({renaming, connection, listening, creation})));
    ASSERT_EQ(m_events.size(), 4u);

    const _BASE_EVENTINFO* byKind[18] = {};
    for (const auto& e : m_events) byKind[e.event_type] = &e;
    ASSERT_TRUE(byKind[6] && byKind[9] && byKind[15] && byKind[17]);

    const _BASE_EVENTINFO& c = *byKind[6];
    EXPECT_EQ(wcharToString(c.detail.file.file_event_name), "FILE_CREATION");
    EXPECT_EQ(wcharToString(c.detail.file.file_group_name), "");  // permissions missing: none of the three
    EXPECT_EQ(wcharToString(c.detail.file.file_user_name), "");

    const _BASE_EVENTINFO& r = *byKind[9];
    EXPECT_EQ(wcharToString(r.detail.file.file_event_name), "FILE_RENAMING");
    EXPECT_EQ(u64(r.process_info.process_id), 11u);
    EXPECT_EQ(wcharToString(r.process_info.process_guid), "g");
    EXPECT_EQ(wcharToString(r.process_info.process_cmd_line), "app -x");
    EXPECT_EQ(wcharToString(r.process_info.process_sha256), "s256");
    EXPECT_EQ(wcharToString(r.detail.file.file_name), "/new");
    EXPECT_EQ(wcharToString(r.detail.file.file_permissions), "0644");
    EXPECT_EQ(wcharToString(r.detail.file.file_md5), "fm");
    EXPECT_EQ(wcharToString(r.detail.file.prev_file_name), std::string(32, 'o'));  // capacity 33 on purpose
    EXPECT_EQ(r.detail.file.prev_file_name[33], 0);
    EXPECT_EQ(u64(r.event_time), 1234567u);

    const _BASE_EVENTINFO& n = *byKind[15];
    EXPECT_EQ(n.detail.connect.dst_port, 443u);
    EXPECT_EQ(n.detail.connect.src_port, 1u);  // low 32 bits
    EXPECT_EQ(wcharToString(n.detail.connect.dst_ip), "10.0.0.1");
    EXPECT_EQ(wcharToString(n.detail.connect.src_ip), "10.0.0.2");
    EXPECT_EQ(wcharToString(n.detail.connect.protocol), "tcp");

    const _BASE_EVENTINFO& l = *byKind[17];
    EXPECT_EQ(l.detail.listen.port, 8080u);
    EXPECT_EQ(wcharToString(l.detail.listen.address), "::");
    EXPECT_EQ(wcharToString(l.detail.listen.protocol), "udp");
    EXPECT_EQ(wcharToString(l.process_info.process_path), "");
}

}  // namespace
