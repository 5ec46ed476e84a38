// Native collector records against hand-placed expected bytes of the record.
#include <gtest/gtest.h>

#include "byte_image.h"
#include "event_records.h"
#include "transformer.h"

namespace {

// Offsets of the record, written out rather than taken from the structs.
constexpr std::size_t kProcessInfo = 12;
constexpr std::size_t kDetail = 23128;
// Within a process block.
constexpr std::size_t kPid = 0, kGuid = 1048, kPath = 1208, kMd5 = 3288, kSha = 3420, kCmd = 4972, kUser = 13164;

const std::string kSha256(64, 'f');
const std::string kMd5Text = "0123456789abcdef0123456789abcdef";
const std::string kUtf8Path = "/opt/caf\xC3\xA9/bin/app";  // non-ASCII: sign extension shows

// A native record and its expected conversion, both headed by name, time and type.
struct Pair {
    ByteImage in{kNativeRecordMaxSize};
    ByteImage out{kRecordSize};

    // Network records sit 4 bytes further than process and file records.
    Pair(std::size_t shift, const std::string& name, uint64_t time, uint16_t type) : m_shift(shift) {
        for (std::size_t i = 0; i < 32; ++i) in.data()[i] = 0x5A;  // sender's head: never read
        in.putNarrow(32 + shift, name);
        in.putAt<uint64_t>(96 + shift, time);
        out.putAt<uint64_t>(0, time);
        out.putAt<uint16_t>(8, type);
    }
    // A text written natively (offset as in a process or file record) and
    // expected wide, cut to `keep` characters.
    void text(std::size_t from, std::size_t to, const std::string& s, std::size_t keep = std::string::npos) {
        in.putNarrow(from + m_shift, s);
        out.putWideChars(to, s.substr(0, keep));
    }
    // The acting process of file and network records.
    void withActor() {
        in.putAt<int32_t>(7352 + m_shift, 4321);
        out.putAt<uint64_t>(kProcessInfo + kPid, 4321);
        text(7364, kProcessInfo + kGuid, "actor-guid");
        text(7396, kProcessInfo + kPath, kUtf8Path);
        text(8421, kProcessInfo + kMd5, kMd5Text);
        text(8454, kProcessInfo + kSha, kSha256);
        text(8519, kProcessInfo + kCmd, "app --serve");
        text(9544, kProcessInfo + kUser, "www-data");
    }

private:
    std::size_t m_shift;
};

void expectSame(const _BASE_EVENTINFO& actual, const ByteImage& expected) {
    ASSERT_EQ(expected.size(), sizeof(_BASE_EVENTINFO));
    const auto* bytes = reinterpret_cast<const unsigned char*>(&actual);
    for (std::size_t i = 0; i < kRecordSize; ++i) ASSERT_EQ(bytes[i], expected.data()[i]) << "offset " << i;
}

template <typename Native>
void expectConverted(Pair& p, bool (Transformer::*convert)(const Native&, _BASE_EVENTINFO&)) {
    auto record = baseRecord();
    Transformer transformer;
    EXPECT_TRUE((transformer.*convert)(p.in.as<Native>(), *record));
    expectSame(*record, p.out);
}

TEST(TransformerNativeConversion, ProcessCreationBytes) {
    Pair p(0, "PROCESS_CREATION", 0x0102030405060708ULL, 1);
    p.in.putAt<int32_t>(7352, -1);
    p.out.putAt<uint64_t>(kDetail + kPid, 0xFFFFFFFFFFFFFFFFULL);
    p.text(7404, kDetail + kGuid, "child-guid");
    p.text(7436, kDetail + kPath, kUtf8Path);
    p.text(8461, kDetail + kMd5, kMd5Text);
    p.text(8494, kDetail + kSha, kSha256);
    p.text(8559, kDetail + kCmd, std::string(1024, 'c'), 1023);  // fills its room of 1,025
    p.text(9584, kDetail + kUser, "root");
    p.in.putAt<int32_t>(9652, 77);
    p.out.putAt<uint64_t>(kProcessInfo + kPid, 77);
    p.text(9688, kProcessInfo + kPath, "/bin/bash");
    p.text(10811, kProcessInfo + kCmd, "bash -c run");
    expectConverted(p, &Transformer::TransformProcessMsg);
}

TEST(TransformerNativeConversion, FileRenamingBytes) {
    Pair p(0, "FILE_RENAMING", 1700000000ULL, 9);
    p.withActor();
    p.out.putWideChars(kDetail + 0, "FILE_RENAMING");
    p.text(9610, kDetail + 3988, "/srv/" + std::string(300, 'p'), 259);  // the record keeps 260
    p.text(13706, kDetail + 3476, "owner");
    p.text(13739, kDetail + 5160, "group");
    p.text(13772, kDetail + 5672, "rw-r--r--");
    expectConverted(p, &Transformer::TransformFileMsg);
}

TEST(TransformerNativeConversion, ConnectionBytes) {
    Pair p(4, "NETWORK_CONNECTION", 99, 15);
    p.withActor();
    p.text(9610, kDetail + 264, "tcp");
    p.text(9614, kDetail + 8, "192.168.100.200");
    p.text(9630, kDetail + 136, "10.0.0.1");
    p.in.putAt<uint16_t>(9650, 0x3412);  // copied as it lies, no byte swap
    p.in.putAt<uint16_t>(9652, 0xBB01);
    p.out.putAt<uint32_t>(kDetail + 0, 0xBB01);
    p.out.putAt<uint32_t>(kDetail + 4, 0x3412);
    expectConverted(p, &Transformer::TransformNetEvent);
}

TEST(TransformerNativeConversion, ListeningBytesUnderBothNames) {
    for (const char* name : {"LISTENING", "HOST_PORT_LISTENING"}) {
        SCOPED_TRACE(name);
        Pair p(4, name, 7, 17);
        p.withActor();
        p.in.putNarrow(9614, "udp6");  // fills its room: the address overwrites the zero
        p.out.putWideChars(kDetail + 128, "udp");
        p.text(9614, kDetail + 0, "0.0.0.0");
        p.in.putAt<uint16_t>(9650, 1);
        p.in.putAt<uint16_t>(9652, 8080);
        p.out.putAt<uint32_t>(kDetail + 144, 8080);
        expectConverted(p, &Transformer::TransformNetEvent);
    }
}

TEST(TransformerNativeConversion, DnsQueryBytes) {
    Pair p(4, "DNS_QUERY", 0x1122334455667788ULL, 16);
    p.withActor();
    p.text(9610, kDetail + 4, std::string(65, 'n'));  // the name fills its native room
    p.in.putAt<uint32_t>(9680, 0xA1B2C3D4);
    p.out.putAt<uint32_t>(kDetail + 0, 0xA1B2C3D4);
    p.text(9680, kDetail + 2052, "1.2.3.4;" + std::string(1016, 'r'), 255);  // the record keeps 256
    expectConverted(p, &Transformer::TransformNetEvent);
}

// The file event name is the canonical one of the number, never the wire's.
TEST(TransformerNativeConversion, FileEventNameFollowsTheNumber) {
    const struct {
        const char* name;
        uint16_t type;
        const char* canonical;
    } cases[] = {
        {"DNS_QUERY", 16, ""},
        {"mysql", 7, "FILE_MODIFICATION"},
        {"hsql", 6, "FILE_CREATION"},
        {"oracle", 8, "FILE_DELETION"},
        {"sqlserver", 10, "FILE_TIME_MODIFICATION"},
        {"PROCESS_CREATION", 1, ""},
        {"dns", 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Pair p(0, c.name, 3, c.type);
        p.withActor();
        p.out.putWideChars(kDetail + 0, c.canonical);
        p.text(9610, kDetail + 3988, "/var/lib/db/ibdata1");
        p.text(13706, kDetail + 3476, "mysql");
        p.text(13739, kDetail + 5160, "mysql");
        p.text(13772, kDetail + 5672, "rw-rw----");
        expectConverted(p, &Transformer::TransformFileMsg);
    }
}

TEST(TransformerNativeConversion, UnknownNameLeavesRecordUntouched) {
    Pair p(0, "PROCESS_EXIT", 1, 0);
    p.in.putNarrow(36, "PROCESS_EXIT");
    p.in.putNarrow(7436, "/bin/true");
    Transformer transformer;
    auto record = baseRecord();
    EXPECT_FALSE(transformer.TransformProcessMsg(p.in.as<process_event_info>(), *record));
    EXPECT_FALSE(transformer.TransformFileMsg(p.in.as<file_event_info>(), *record));
    EXPECT_FALSE(transformer.TransformNetEvent(p.in.as<net_event_info>(), *record));
    expectSame(*record, ByteImage(kRecordSize));
}

TEST(TransformerNativeConversion, TextRunningToTheRecordEndStopsThere) {
    // No zero byte anywhere: reads must stay inside the native record.
    ByteImage in(kNativeRecordMaxSize);
    std::memset(in.data(), 'x', in.size());
    in.putNarrow(32, "FILE_CREATION");
    auto record = baseRecord();
    EXPECT_TRUE(Transformer().TransformFileMsg(in.as<file_event_info>(), *record));
    EXPECT_EQ(wcharToString(record->detail.file.file_permissions), std::string(127, 'x'));
}

}  // namespace
