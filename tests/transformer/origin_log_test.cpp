// Origin logs: the envelope, which events are kept, and their order.
#include <gtest/gtest.h>

#include "byte_image.h"
#include "log_capture.h"
#include "transformer.h"
#include "wl_clock.h"

namespace {

// Wraps each event object as the text of a "message" member.
std::string envelope(const std::vector<std::string>& events) {
    std::string out = "[";
    for (const std::string& event : events) {
        std::string quoted;
        for (char c : event) quoted += c == '"' ? std::string("\\\"") : std::string(1, c);
        out += (out.size() > 1 ? ",{\"message\":\"" : "{\"message\":\"") + quoted + "\"}";
    }
    return out + "]";
}

const std::string kProcessKeys =
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
    const std::pair<std::string, const char*> cases[] = {
        {"{}", "originLog is not a array, not include '['"},
        {"log [ {\"message\":\"x\"}", "originLog is not a array, not include ']'"},
        {"[{\"message\":\"{}\"},]", "originLog is not a array"},
    };
    for (const auto& [text, message] : cases) {
        SCOPED_TRACE(text);
        LogCapture log;
        m_events.resize(1);
        m_events[0].event_type = 99;
        EXPECT_FALSE(convert(text));
        ASSERT_EQ(m_events.size(), 1u);
        EXPECT_EQ(m_events[0].event_type, 99);
        ASSERT_EQ(log.lines().size(), 1u) << log.dump();
        EXPECT_EQ(log.lines()[0].text, message);
        EXPECT_EQ(log.lines()[0].level, 1);
    }
}

// The writer puts one element per line and closes the array after each
// append; a crash mid-append leaves the last line torn.
TEST_F(TransformerOriginLog, ATornLastLineCostsOnlyThatElement) {
    const std::string process = event("PROCESS_CREATION", "\"parent_pid\":1,\"parent_ppath\":\"/p\"");
    const std::string file = event("FILE_CREATION", kProcessKeys + ",\"file_name\":\"/f\"");
    const std::string first = envelope({process}).substr(1, envelope({process}).size() - 2);
    const std::string second = envelope({file}).substr(1, envelope({file}).size() - 2);
    const std::string whole = "[\n" + first + "\n,\n" + second + "\n]\n";
    struct Case {
        const char* what;
        std::string text;
        size_t kept;
    } cases[] = {
        {"whole file", whole, 2},
        {"torn inside the second element", "[\n" + first + "\n,\n" + second.substr(0, second.size() / 2), 1},
        {"torn after a ']' inside a text", "[\n" + first + "\n,\n{\"message\":\"[x]", 1},
        {"torn after the separator", "[\n" + first + "\n,\n", 1},
        {"torn in the first element", "[\n" + first.substr(0, 10), 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture log;
        m_events.clear();
        EXPECT_EQ(convert(c.text), c.kept > 0);
        EXPECT_EQ(m_events.size(), c.kept);
    }
}

TEST_F(TransformerOriginLog, SortedByKindIncludingEarlierContent) {
    const std::string file = event("FILE_CREATION", kProcessKeys + ",\"file_name\":\"/f\"");
    const std::string process = event("PROCESS_CREATION", "\"parent_pid\":1,\"parent_ppath\":\"/sbin/init\"");
    const std::string dns =
        event("DNS_QUERY", kProcessKeys + ",\"query_status\":0,\"query_name\":\"a\",\"query_result\":\"b\"");
    m_events.resize(1);
    m_events[0].event_type = 9;
    // Text around the array and elements without a usable event are ignored.
    const std::string junk = "{\"other\":1},{\"message\":\"not json\"},{\"message\":12},";
    std::string text = envelope({dns, process, file});
    text = "2024-01-01 header: [" + junk + text.substr(1) + " trailer\n";
    EXPECT_TRUE(convert(text));
    std::vector<int> kinds;
    for (const auto& e : m_events) kinds.push_back(e.event_type);
    EXPECT_EQ(kinds, (std::vector<int>{1, 6, 9, 16}));
    EXPECT_EQ(u64(m_events[1].event_time), 1234567u);
}

TEST_F(TransformerOriginLog, RequiredKeysDecideWhatIsKept) {
    const std::string conn = kProcessKeys + ",\"dst_ip\":\"1.1.1.1\",\"src_ip\":\"2.2.2.2\",\"protocol\":\"tcp\"";
    const std::pair<std::string, bool> cases[] = {
        {event("PROCESS_CREATION", "\"parent_pid\":1,\"parent_ppath\":\"/p\""), true},
        {event("PROCESS_CREATION", "\"parent_pid\":1"), false},
        {event("PROCESS_CREATION", "\"parent_ppath\":\"/p\""), false},
        {event("NETWORK_CONNECTION", conn + ",\"dst_port\":80"), true},
        {event("NETWORK_CONNECTION", conn + ",\"src_port\":80"), false},
        {event("HOST_PORT_LISTENING", "\"dst_port\":22,\"dst_ip\":\"0.0.0.0\",\"protocol\":null"), true},
        {event("HOST_PORT_LISTENING", "\"dst_port\":22,\"dst_ip\":\"0.0.0.0\""), false},
        {event("PROCESS_EXIT", kProcessKeys), false},
    };
    for (const auto& [text, kept] : cases) {
        m_events.clear();
        EXPECT_TRUE(convert(envelope({text})));
        EXPECT_EQ(m_events.size(), kept ? 1u : 0u) << text;
    }
}

std::string wide(const wchar_t* text) { return wcharToString(text); }

// What each kind needs to be kept, the acting process's keys included.
std::string requiredKeys(const std::string& kind) {
    if (kind == "PROCESS_CREATION") return kProcessKeys + ",\"parent_pid\":7,\"parent_ppath\":\"/sbin/init\"";
    if (kind == "FILE_DELETION") return "\"process_id\":11,\"process_path\":\"/bin/app\"";
    if (kind == "NETWORK_CONNECTION")
        return kProcessKeys +
               ",\"dst_port\":80,\"src_port\":51000,\"dst_ip\":\"1.1.1.1\",\"src_ip\":\"2.2.2.2\","
               "\"protocol\":\"tcp\"";
    if (kind == "DNS_QUERY") return kProcessKeys + ",\"query_status\":3,\"query_name\":\"a\",\"query_result\":\"b\"";
    if (kind == "HOST_PORT_LISTENING")
        return kProcessKeys + ",\"dst_port\":22,\"dst_ip\":\"0.0.0.0\",\"protocol\":\"tcp\"";
    // File kinds: owner, group and permissions are written only together.
    return kProcessKeys + ",\"file_user_name\":\"www\",\"file_group_name\":\"staff\",\"file_permissions\":\"0640\"";
}

using Field = std::string (*)(const _BASE_EVENTINFO&);
#define TEXT(member) [](const _BASE_EVENTINFO& e) { return wide(e.member); }
#define NUMBER(member) [](const _BASE_EVENTINFO& e) { return std::to_string(u64(e.member)); }

// Each key into its own field, cut to the field's capacity: the text under
// test comes first, so that it wins over the same key among the required ones.
TEST_F(TransformerOriginLog, EachKeyFillsItsFieldToItsCapacity) {
    const struct {
        const char* kind;
        const char* key;
        Field field;
        std::size_t capacity;
    } cases[] = {
        {"PROCESS_CREATION", "process_guid", TEXT(detail.process.process_guid), 40},
        {"PROCESS_CREATION", "process_path", TEXT(detail.process.process_path), 260},
        {"PROCESS_CREATION", "process_md5", TEXT(detail.process.process_md5), 33},
        {"PROCESS_CREATION", "process_cmd_line", TEXT(detail.process.process_cmd_line), 1024},
        {"PROCESS_CREATION", "process_user_name", TEXT(detail.process.process_user_name), 128},
        {"PROCESS_CREATION", "process_sha256", TEXT(detail.process.process_sha256), 128},
        {"PROCESS_CREATION", "parent_ppath", TEXT(process_info.process_path), 260},
        {"PROCESS_CREATION", "parent_pmd5", TEXT(process_info.process_md5), 33},
        {"PROCESS_CREATION", "parent_pcmd_line", TEXT(process_info.process_cmd_line), 1024},
        {"PROCESS_CREATION", "parent_psha256", TEXT(process_info.process_sha256), 128},
        {"FILE_CREATION", "process_cmd_line", TEXT(process_info.process_cmd_line), 1024},
        {"FILE_CREATION", "file_name", TEXT(detail.file.file_name), 260},
        {"FILE_CREATION", "file_user_name", TEXT(detail.file.file_user_name), 128},
        {"FILE_CREATION", "file_group_name", TEXT(detail.file.file_group_name), 128},
        {"FILE_CREATION", "file_permissions", TEXT(detail.file.file_permissions), 128},
        // The old name gets the narrow capacity of a hash.
        {"FILE_RENAMING", "prev_file_name", TEXT(detail.file.prev_file_name), 33},
        {"FILE_RENAMING", "file_md5", TEXT(detail.file.file_md5), 33},
        {"FILE_DELETION", "process_path", TEXT(process_info.process_path), 260},
        {"FILE_DELETION", "process_guid", TEXT(process_info.process_guid), 40},
        {"FILE_DELETION", "file_name", TEXT(detail.file.file_name), 260},
        {"NETWORK_CONNECTION", "dst_ip", TEXT(detail.connect.dst_ip), 32},
        {"NETWORK_CONNECTION", "src_ip", TEXT(detail.connect.src_ip), 32},
        {"NETWORK_CONNECTION", "protocol", TEXT(detail.connect.protocol), 4},
        {"DNS_QUERY", "query_name", TEXT(detail.dns.query_name), 512},
        {"DNS_QUERY", "query_result", TEXT(detail.dns.query_result), 256},
        {"HOST_PORT_LISTENING", "dst_ip", TEXT(detail.listen.address), 32},
        {"HOST_PORT_LISTENING", "protocol", TEXT(detail.listen.protocol), 4},
    };
    const std::string text(1100, 'x');
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.kind) + " " + c.key);
        m_events.clear();
        ASSERT_TRUE(convert(
            envelope({event(c.kind, "\"" + std::string(c.key) + "\":\"" + text + "\"," + requiredKeys(c.kind))})));
        ASSERT_EQ(m_events.size(), 1u);
        EXPECT_EQ(c.field(m_events[0]), text.substr(0, c.capacity - 1));
    }
}

TEST_F(TransformerOriginLog, NumbersNamesAndKeysNoneFills) {
    const std::string noProcessId =
        "\"process_path\":\"/bin/app\",\"process_cmd_line\":\"app\",\"process_user_name\":\"u\"";
    const struct {
        const char* kind;
        std::string keys;
        Field field;
        const char* expected;
    } cases[] = {
        {"PROCESS_CREATION", requiredKeys("PROCESS_CREATION"), NUMBER(detail.process.process_id), "11"},
        {"PROCESS_CREATION", requiredKeys("PROCESS_CREATION"), NUMBER(process_info.process_id), "7"},
        {"PROCESS_CREATION", requiredKeys("PROCESS_CREATION"), TEXT(process_info.process_guid), ""},
        {"FILE_DELETION", requiredKeys("FILE_DELETION"), NUMBER(process_info.process_id), "11"},
        {"NETWORK_CONNECTION", requiredKeys("NETWORK_CONNECTION"), NUMBER(detail.connect.dst_port), "80"},
        {"NETWORK_CONNECTION", requiredKeys("NETWORK_CONNECTION"), NUMBER(detail.connect.src_port), "51000"},
        {"DNS_QUERY", requiredKeys("DNS_QUERY"), NUMBER(detail.dns.query_status), "3"},
        {"HOST_PORT_LISTENING", requiredKeys("HOST_PORT_LISTENING"), NUMBER(detail.listen.port), "22"},
        {"FILE_RENAMING", requiredKeys("FILE_RENAMING"), TEXT(detail.file.file_event_name), "FILE_RENAMING"},
        {"FILE_DELETION", requiredKeys("FILE_DELETION"), TEXT(detail.file.file_event_name), "FILE_DELETION"},
        // The acting process needs an id or a GUID; without either its fields stay empty.
        {"FILE_CREATION", "\"process_guid\":\"g\"," + noProcessId, TEXT(process_info.process_path), "/bin/app"},
        {"FILE_CREATION", noProcessId, TEXT(process_info.process_path), ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.kind) + " " + c.expected);
        m_events.clear();
        ASSERT_TRUE(convert(envelope({event(c.kind, c.keys)})));
        ASSERT_EQ(m_events.size(), 1u);
        EXPECT_EQ(c.field(m_events[0]), c.expected);
    }
}

TEST_F(TransformerOriginLog, OwnerGroupAndPermissionsComeAllOrNone) {
    const std::string owner = "\"file_user_name\":\"www\"", group = "\"file_group_name\":\"staff\"",
                      mode = "\"file_permissions\":\"0640\"";
    const std::pair<std::string, bool> cases[] = {
        {owner + "," + group + "," + mode, true},
        {group + "," + mode, false},
        {owner + "," + mode, false},
        {owner + "," + group, false},
    };
    for (const auto& [keys, written] : cases) {
        SCOPED_TRACE(keys);
        m_events.clear();
        ASSERT_TRUE(convert(envelope({event("FILE_MODIFICATION", kProcessKeys + ",\"file_name\":\"/f\"," + keys)})));
        ASSERT_EQ(m_events.size(), 1u);
        const _BASE_FILES_INFO& file = m_events[0].detail.file;
        EXPECT_EQ(wide(file.file_user_name), written ? "www" : "");
        EXPECT_EQ(wide(file.file_group_name), written ? "staff" : "");
        EXPECT_EQ(wide(file.file_permissions), written ? "0640" : "");
        EXPECT_EQ(wide(file.file_name), "/f");
    }
}

}  // namespace
