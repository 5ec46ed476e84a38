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
        {event("NETWORK_CONNECTION", conn + ",\"dst_port\":80"), true},
        {event("NETWORK_CONNECTION", conn + ",\"src_port\":80"), false},
        {event("HOST_PORT_LISTENING", "\"dst_port\":22,\"dst_ip\":\"0.0.0.0\",\"protocol\":null"), true},
        {event("PROCESS_EXIT", kProcessKeys), false},
    };
    for (const auto& [text, kept] : cases) {
        m_events.clear();
        EXPECT_TRUE(convert(envelope({text})));
        EXPECT_EQ(m_events.size(), kept ? 1u : 0u) << text;
    }
}

std::string wide(const wchar_t* text) { return wcharToString(text); }

TEST_F(TransformerOriginLog, ProcessCreationFillsTheChildAndTheParent) {
    const std::string keys = kProcessKeys +
                             ",\"process_sha256\":\"s256\",\"parent_pid\":7,\"parent_ppath\":\"/sbin/init\","
                             "\"parent_pmd5\":\"pm\",\"parent_pcmd_line\":\"init 3\",\"parent_psha256\":\"ps\"";
    ASSERT_TRUE(convert(envelope({event("PROCESS_CREATION", keys)})));
    ASSERT_EQ(m_events.size(), 1u);
    const _BASE_PROCESSES_INFO& child = m_events[0].detail.process;
    const _BASE_PROCESSES_INFO& parent = m_events[0].process_info;
    EXPECT_EQ(u64(child.process_id), 11u);
    EXPECT_EQ(wide(child.process_guid), "g");
    EXPECT_EQ(wide(child.process_path), "/bin/app");
    EXPECT_EQ(wide(child.process_md5), "m");
    EXPECT_EQ(wide(child.process_cmd_line), "app -x");
    EXPECT_EQ(wide(child.process_user_name), "root");
    EXPECT_EQ(wide(child.process_sha256), "s256");
    EXPECT_EQ(u64(parent.process_id), 7u);
    EXPECT_EQ(wide(parent.process_path), "/sbin/init");
    EXPECT_EQ(wide(parent.process_md5), "pm");
    EXPECT_EQ(wide(parent.process_cmd_line), "init 3");
    EXPECT_EQ(wide(parent.process_sha256), "ps");
    EXPECT_EQ(wide(parent.process_guid), "") << "the parent has no GUID key";
}

TEST_F(TransformerOriginLog, RenamingKeepsTheOldNameToItsNarrowCapacity) {
    const std::string oldName = "/srv/" + std::string(40, 'o');
    ASSERT_TRUE(
        convert(envelope({event("FILE_RENAMING", kProcessKeys + ",\"file_name\":\"/srv/new\",\"prev_file_name\":\"" +
                                                     oldName + "\",\"file_md5\":\"" + std::string(40, 'a') + "\"")})));
    ASSERT_EQ(m_events.size(), 1u);
    const _BASE_FILES_INFO& file = m_events[0].detail.file;
    EXPECT_EQ(wide(file.prev_file_name), oldName.substr(0, 32));
    EXPECT_EQ(wide(file.file_md5), std::string(32, 'a'));
    EXPECT_EQ(wide(file.file_name), "/srv/new");
    EXPECT_EQ(wide(file.file_event_name), "FILE_RENAMING");
    EXPECT_EQ(wide(m_events[0].process_info.process_path), "/bin/app");
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
