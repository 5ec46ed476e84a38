// Native collector records against hand-placed expected bytes of the record.
#include <gtest/gtest.h>

#include "byte_image.h"
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

ByteImage nativeImage() {
    ByteImage native(kNativeRecordMaxSize);
    // Bytes the conversion must not read: sender's head and gaps.
    for (std::size_t i = 0; i < 32; ++i) native.data()[i] = 0x5A;
    return native;
}

// The acting process of file and network records; network is 4 bytes further.
void putNativeActor(ByteImage& native, std::size_t shift) {
    native.putI32(7352 + shift, 4321);
    native.putNarrow(7364 + shift, "actor-guid");
    native.putNarrow(7396 + shift, kUtf8Path);
    native.putNarrow(8421 + shift, kMd5Text);
    native.putNarrow(8454 + shift, kSha256);
    native.putNarrow(8519 + shift, "app --serve");
    native.putNarrow(9544 + shift, "www-data");
}

void expectActor(ByteImage& expected) {
    const std::size_t b = kProcessInfo;
    expected.putU64(b + kPid, 4321);
    expected.putWideChars(b + kGuid, "actor-guid");
    expected.putWideChars(b + kPath, kUtf8Path);
    expected.putWideChars(b + kMd5, kMd5Text);
    expected.putWideChars(b + kSha, kSha256);
    expected.putWideChars(b + kCmd, "app --serve");
    expected.putWideChars(b + kUser, "www-data");
}

void expectSame(const _BASE_EVENTINFO& actual, const ByteImage& expected) {
    ASSERT_EQ(expected.size(), sizeof(_BASE_EVENTINFO));
    const std::string diff = firstDifference(&actual, expected.data(), kRecordSize);
    EXPECT_TRUE(diff.empty()) << diff;
}

TEST(TransformerNativeConversion, ProcessCreationBytes) {
    ByteImage native = nativeImage();
    native.putNarrow(32, "PROCESS_CREATION");
    native.putU64(96, 0x0102030405060708ULL);
    native.putI32(7352, -1);
    native.putNarrow(7404, "child-guid");
    native.putNarrow(7436, kUtf8Path);
    native.putNarrow(8461, kMd5Text);
    native.putNarrow(8494, kSha256);
    native.putNarrow(8559, std::string(1024, 'c'));  // fills its room of 1,025
    native.putNarrow(9584, "root");
    native.putI32(9652, 77);
    native.putRaw(9656, std::string(32, 'G'));  // sender's parent fields that are not read
    native.putNarrow(9688, "/bin/bash");
    native.putNarrow(10713, "ffffffffffffffffffffffffffffffff");
    native.putNarrow(10746, std::string(64, 'e'));
    native.putNarrow(10811, "bash -c run");

    ByteImage expected(kRecordSize);
    expected.putU64(0, 0x0102030405060708ULL);
    expected.putU16(8, 1);
    expected.putU64(kDetail + kPid, 0xFFFFFFFFFFFFFFFFULL);
    expected.putWideChars(kDetail + kGuid, "child-guid");
    expected.putWideChars(kDetail + kPath, kUtf8Path);
    expected.putWideChars(kDetail + kMd5, kMd5Text);
    expected.putWideChars(kDetail + kSha, kSha256);
    expected.putWideChars(kDetail + kCmd, std::string(1023, 'c'));
    expected.putWideChars(kDetail + kUser, "root");
    expected.putU64(kProcessInfo + kPid, 77);
    expected.putWideChars(kProcessInfo + kPath, "/bin/bash");
    expected.putWideChars(kProcessInfo + kMd5, "ffffffffffffffffffffffffffffffff");
    expected.putWideChars(kProcessInfo + kSha, std::string(64, 'e'));
    expected.putWideChars(kProcessInfo + kCmd, "bash -c run");

    Transformer transformer;
    auto record = clearedRecord();
    EXPECT_TRUE(transformer.TransformProcessMsg(native.as<process_event_info>(), *record));
    expectSame(*record, expected);
}

TEST(TransformerNativeConversion, FileRenamingBytes) {
    ByteImage native = nativeImage();
    native.putNarrow(32, "FILE_RENAMING");
    native.putU64(96, 1700000000ULL);
    putNativeActor(native, 0);
    native.putNarrow(9610, "/srv/" + std::string(300, 'p'));  // longer than the record's 260
    native.putNarrow(13706, "owner");
    native.putNarrow(13739, "group");
    native.putNarrow(13772, "rw-r--r--");

    ByteImage expected(kRecordSize);
    expected.putU64(0, 1700000000ULL);
    expected.putU16(8, 9);
    expectActor(expected);
    expected.putWideChars(kDetail + 0, "FILE_RENAMING");
    expected.putWideChars(kDetail + 3988, ("/srv/" + std::string(300, 'p')).substr(0, 259));
    expected.putWideChars(kDetail + 3476, "owner");
    expected.putWideChars(kDetail + 5160, "group");
    expected.putWideChars(kDetail + 5672, "rw-r--r--");

    Transformer transformer;
    auto record = clearedRecord();
    EXPECT_TRUE(transformer.TransformFileMsg(native.as<file_event_info>(), *record));
    expectSame(*record, expected);
}

TEST(TransformerNativeConversion, ConnectionBytes) {
    ByteImage native = nativeImage();
    native.putNarrow(36, "NETWORK_CONNECTION");
    native.putU64(100, 99);
    putNativeActor(native, 4);
    native.putNarrow(9614, "tcp");
    native.putNarrow(9618, "192.168.100.200");
    native.putNarrow(9634, "10.0.0.1");
    native.putU16(9650, 0x3412);  // copied as it lies, no byte swap
    native.putU16(9652, 0xBB01);

    ByteImage expected(kRecordSize);
    expected.putU64(0, 99);
    expected.putU16(8, 15);
    expectActor(expected);
    expected.putU32(kDetail + 0, 0xBB01);
    expected.putU32(kDetail + 4, 0x3412);
    expected.putWideChars(kDetail + 8, "192.168.100.200");
    expected.putWideChars(kDetail + 136, "10.0.0.1");
    expected.putWideChars(kDetail + 264, "tcp");

    Transformer transformer;
    auto record = clearedRecord();
    EXPECT_TRUE(transformer.TransformNetEvent(native.as<net_event_info>(), *record));
    expectSame(*record, expected);
}

TEST(TransformerNativeConversion, DnsQueryBytes) {
    ByteImage native = nativeImage();
    native.putNarrow(36, "DNS_QUERY");
    native.putU64(100, 5);
    putNativeActor(native, 4);
    native.putNarrow(9614, "example.org");
    native.putU32(9680, 0x80000003U);
    native.putNarrow(9684, std::string(300, 'r'));

    ByteImage expected(kRecordSize);
    expected.putU64(0, 5);
    expected.putU16(8, 16);
    expectActor(expected);
    expected.putU32(kDetail + 0, 0x80000003U);
    expected.putWideChars(kDetail + 4, "example.org");
    expected.putWideChars(kDetail + 2052, std::string(255, 'r'));

    Transformer transformer;
    auto record = clearedRecord();
    EXPECT_TRUE(transformer.TransformNetEvent(native.as<net_event_info>(), *record));
    expectSame(*record, expected);
}

TEST(TransformerNativeConversion, ListeningBytesUnderBothNames) {
    for (const char* name : {"LISTENING", "HOST_PORT_LISTENING"}) {
        SCOPED_TRACE(name);
        ByteImage native = nativeImage();
        native.putNarrow(36, name);
        native.putU64(100, 7);
        putNativeActor(native, 4);
        native.putRaw(9614, "udp6");  // fills its room: the text runs on into the address
        native.putNarrow(9618, "0.0.0.0");
        native.putU16(9650, 1);
        native.putU16(9652, 8080);

        ByteImage expected(kRecordSize);
        expected.putU64(0, 7);
        expected.putU16(8, 17);
        expectActor(expected);
        expected.putWideChars(kDetail + 0, "0.0.0.0");
        expected.putWideChars(kDetail + 128, "udp");
        expected.putU32(kDetail + 144, 8080);

        Transformer transformer;
        auto record = clearedRecord();
        EXPECT_TRUE(transformer.TransformNetEvent(native.as<net_event_info>(), *record));
        expectSame(*record, expected);
    }
}

TEST(TransformerNativeConversion, UnknownNameLeavesRecordUntouched) {
    ByteImage native = nativeImage();
    native.putNarrow(32, "PROCESS_EXIT");
    native.putNarrow(36, "PROCESS_EXIT");
    native.putU64(96, 1);
    native.putU64(100, 1);
    native.putNarrow(7436, "/bin/true");
    const ByteImage zero(kRecordSize);

    Transformer transformer;
    auto record = clearedRecord();
    EXPECT_FALSE(transformer.TransformProcessMsg(native.as<process_event_info>(), *record));
    EXPECT_FALSE(transformer.TransformFileMsg(native.as<file_event_info>(), *record));
    EXPECT_FALSE(transformer.TransformNetEvent(native.as<net_event_info>(), *record));
    expectSame(*record, zero);
}

TEST(TransformerNativeConversion, NameDecidesNumberNotPath) {
    Transformer transformer;
    {
        // A process record under a file name is filled as a process but typed 6.
        ByteImage native = nativeImage();
        native.putNarrow(32, "FILE_CREATION");
        native.putI32(7352, 5);
        native.putNarrow(7436, "/bin/ls");
        auto record = clearedRecord();
        EXPECT_TRUE(transformer.TransformProcessMsg(native.as<process_event_info>(), *record));
        EXPECT_EQ(record->event_type, 6);
        EXPECT_EQ(u64(record->detail.process.process_id), 5u);
        EXPECT_EQ(wcharToString(record->detail.process.process_path), "/bin/ls");
    }
    struct FileCase {
        const char* name;
        uint16_t type;
        const char* fileEventName;
    };
    for (const FileCase& c : {FileCase{"DNS_QUERY", 16, ""}, FileCase{"mysql", 7, "FILE_MODIFICATION"},
                              FileCase{"FILE_TIME_MODIFICATION", 10, "FILE_TIME_MODIFICATION"},
                              FileCase{"delete", 5, ""}}) {
        SCOPED_TRACE(c.name);
        ByteImage native = nativeImage();
        native.putNarrow(32, c.name);
        native.putNarrow(9610, "/etc/passwd");
        auto record = clearedRecord();
        EXPECT_TRUE(transformer.TransformFileMsg(native.as<file_event_info>(), *record));
        EXPECT_EQ(record->event_type, c.type);
        EXPECT_EQ(wcharToString(record->detail.file.file_event_name), c.fileEventName);
        EXPECT_EQ(wcharToString(record->detail.file.file_name), "/etc/passwd");
    }
    {
        // A network record under a process name: only kind and time.
        ByteImage native = nativeImage();
        native.putNarrow(36, "PROCESS_CREATION");
        native.putU64(100, 123);
        putNativeActor(native, 4);
        native.putNarrow(9618, "1.2.3.4");
        auto record = clearedRecord();
        EXPECT_TRUE(transformer.TransformNetEvent(native.as<net_event_info>(), *record));
        ByteImage expected(kRecordSize);
        expected.putU64(0, 123);
        expected.putU16(8, 1);
        expectSame(*record, expected);
    }
}

TEST(TransformerNativeConversion, TextRunningToTheRecordEndStopsThere) {
    // No zero byte anywhere: reads must stay inside the native record.
    ByteImage native(kNativeRecordMaxSize);
    std::memset(native.data(), 'x', native.size());
    native.putNarrow(32, "FILE_CREATION");
    Transformer transformer;
    auto record = clearedRecord();
    EXPECT_TRUE(transformer.TransformFileMsg(native.as<file_event_info>(), *record));
    EXPECT_EQ(wcharToString(record->detail.file.file_permissions), std::string(127, 'x'));
}

}  // namespace
