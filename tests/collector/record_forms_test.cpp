// Records as the collector sends them: read back by the module's own
// conversion, and through the JSON-lines form.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "action_records.h"
#include "event_kind.h"
#include "native_encoder.h"
#include "record_json.h"
#include "replay.h"
#include "transformer.h"

namespace {

using wlc::ActionRecord;
using wlc::EventKind;

wlc::ProcessInfo process(int32_t pid, const std::string& path) {
    return wlc::ProcessInfo{pid, "", path, path + " --flag", "www-data", std::string(32, 'a'), std::string(64, 'b')};
}

ActionRecord sample(EventKind kind) {
    ActionRecord r;
    r.kind = kind;
    r.time = 1763800000;
    r.process = process(4242, "/usr/bin/app");
    r.parent = process(4200, "/usr/bin/python3");
    r.file = {"/srv/upload/a.txt", "/srv/upload/a.tmp", "www-data", "staff", "0640"};
    r.net = {"tcp", "10.1.2.3", 40312, "192.0.2.7", 5432};
    r.dns = {"example.org", 0, ""};
    return r;
}

std::string wide(const wchar_t* text) { return wcharToString(text); }

// The module's conversion of the encoded bytes, zero-padded as its
// publisher pads them.
_BASE_EVENTINFO throughModule(const ActionRecord& record) {
    std::vector<uint8_t> bytes = wlc::encodeNative(record);
    bytes.resize(kNativeRecordMaxSize, 0);
    static Transformer transformer;
    auto out = std::make_unique<_BASE_EVENTINFO>();
    std::memset(out.get(), 0, sizeof *out);
    bool known = false;
    switch (wlc::shapeOf(record.kind)) {
        case wlc::RecordShape::Process:
            known = transformer.TransformProcessMsg(*reinterpret_cast<process_event_info*>(bytes.data()), *out);
            break;
        case wlc::RecordShape::File:
            known = transformer.TransformFileMsg(*reinterpret_cast<file_event_info*>(bytes.data()), *out);
            break;
        case wlc::RecordShape::Net:
            known = transformer.TransformNetEvent(*reinterpret_cast<net_event_info*>(bytes.data()), *out);
            break;
    }
    EXPECT_TRUE(known) << wlc::eventName(record.kind);
    return *out;
}

void expectActor(const _BASE_PROCESSES_INFO& p, const wlc::ProcessInfo& want) {
    uint64_t pid = p.process_id;  // 4-byte aligned in the record: copied before it is bound to a reference
    EXPECT_EQ(pid, static_cast<uint64_t>(want.pid));
    EXPECT_EQ(wide(p.process_path), want.path);
    EXPECT_EQ(wide(p.process_cmd_line), want.cmdline);
    EXPECT_EQ(wide(p.process_md5), want.md5);
    EXPECT_EQ(wide(p.process_sha256), want.sha256);
}

TEST(CollectorRecords, EveryKindReachesTheModuleWithItsFields) {
    struct Case {
        EventKind kind;
        uint16_t eventType;
    };
    const Case cases[] = {
        {EventKind::ProcessCreation, 1}, {EventKind::FileCreation, 6}, {EventKind::FileModification, 7},
        {EventKind::FileDeletion, 8},    {EventKind::FileRenaming, 9}, {EventKind::FileTimeChange, 10},
        {EventKind::Connection, 15},     {EventKind::DnsQuery, 16},    {EventKind::Listening, 17},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(wlc::eventName(c.kind));
        ActionRecord record = sample(c.kind);
        _BASE_EVENTINFO event = throughModule(record);
        EXPECT_EQ(event.event_type, c.eventType);
        uint64_t time = event.event_time;
        EXPECT_EQ(time, record.time);
        switch (wlc::shapeOf(c.kind)) {
            case wlc::RecordShape::Process:
                expectActor(event.detail.process, record.process);
                EXPECT_EQ(wide(event.detail.process.process_user_name), "www-data");
                expectActor(event.process_info, record.parent);
                break;
            case wlc::RecordShape::File:
                expectActor(event.process_info, record.process);
                EXPECT_EQ(wide(event.process_info.process_user_name), "www-data");
                EXPECT_EQ(wide(event.detail.file.file_name), "/srv/upload/a.txt");
                EXPECT_EQ(wide(event.detail.file.file_user_name), "www-data");
                EXPECT_EQ(wide(event.detail.file.file_group_name), "staff");
                EXPECT_EQ(wide(event.detail.file.file_permissions), "0640");
                break;
            case wlc::RecordShape::Net:
                expectActor(event.process_info, record.process);
                if (c.kind == EventKind::DnsQuery) {
                    EXPECT_EQ(wide(event.detail.dns.query_name), "example.org");
                } else if (c.kind == EventKind::Listening) {
                    EXPECT_EQ(wide(event.detail.listen.address), "192.0.2.7");
                    EXPECT_EQ(event.detail.listen.port, 5432u);
                    EXPECT_EQ(wide(event.detail.listen.protocol), "tcp");
                } else {
                    EXPECT_EQ(wide(event.detail.connect.dst_ip), "192.0.2.7");
                    EXPECT_EQ(wide(event.detail.connect.src_ip), "10.1.2.3");
                    EXPECT_EQ(event.detail.connect.dst_port, 5432u);
                    EXPECT_EQ(event.detail.connect.src_port, 40312u);
                    EXPECT_EQ(wide(event.detail.connect.protocol), "tcp");
                }
                break;
        }
    }
}

TEST(CollectorRecords, TextsAreCutToTheirRoomAndTerminated) {
    ActionRecord record = sample(EventKind::Connection);
    record.net.dstIp = "2001:db8:85a3::8a2e:370:7334";  // longer than the 15 characters the record holds
    record.process.cmdline = std::string(5000, 'x');
    std::vector<uint8_t> bytes = wlc::encodeNative(record);
    ASSERT_EQ(bytes.size(), sizeof(net_event_info));
    const auto& net = *reinterpret_cast<const net_event_info*>(bytes.data());
    EXPECT_EQ(std::string(net.tail.connect.dst_ip), "2001:db8:85a3::");
    EXPECT_EQ(std::string(net.tail.connect.src_ip), "10.1.2.3") << "the cut must not run into the next field";
    EXPECT_EQ(std::strlen(net.process_cmd_line), sizeof net.process_cmd_line - 1);
}

TEST(CollectorRecords, JsonFormRoundTripsEveryKind) {
    for (int i = 0; i < wlc::kReportedKindCount; ++i) {
        ActionRecord record = sample(static_cast<EventKind>(i));
        ActionRecord back;
        std::string error;
        ASSERT_TRUE(wlc::recordFromJson(wlc::recordToJson(record), back, error)) << error;
        EXPECT_EQ(wlc::encodeNative(back), wlc::encodeNative(record)) << wlc::eventName(record.kind);
        EXPECT_EQ(back.file.oldPath, wlc::shapeOf(record.kind) == wlc::RecordShape::File ? record.file.oldPath : "");
    }
}

TEST(CollectorRecords, JsonFormRefusesWhatIsNoRecord) {
    const std::pair<const char*, const char*> cases[] = {
        {"not json", "not a JSON object"},
        {"[1,2]", "not a JSON object"},
        {R"({"event":"DNS_QUERY"})", "no \"sub_type\""},
        {R"({"sub_type":1028})", "unknown sub_type 1028"},
        {R"({"sub_type":1030,"event":"FILE_CREATION"})", "event \"FILE_CREATION\" does not match sub_type 1030"},
        {R"({"sub_type":1030,"dns":{"name":7}})", "\"name\" must be a string"},
        {R"({"sub_type":1029,"net":{"dst_port":70000}})", "\"dst_port\" must be an integer in range"},
        {R"({"sub_type":1027,"process":"x"})", "\"process\" must be an object"},
    };
    for (const auto& c : cases) {
        ActionRecord record;
        std::string error;
        EXPECT_FALSE(wlc::recordFromJson(c.first, record, error)) << c.first;
        EXPECT_EQ(error, c.second) << c.first;
    }
}

TEST(CollectorRecords, ARecordingWithABadLineIsRefusedWithItsNumber) {
    std::string path = ::testing::TempDir() + "/recording.jsonl";
    {
        std::ofstream out(path);
        out << "# a comment\n\n" << wlc::recordToJson(sample(EventKind::DnsQuery)) << "\n{\"sub_type\":1}\n";
    }
    std::vector<ActionRecord> records;
    std::string error;
    EXPECT_FALSE(wlc::loadRecording(path, records, error));
    EXPECT_EQ(error, path + ":4: unknown sub_type 1");
}

}  // namespace
