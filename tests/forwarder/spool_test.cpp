#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "spool_reader.h"
#include "spool_writer.h"
#include "temp_dir.h"

using namespace wlspool;

namespace {

// Every line the same length, so file boundaries can be reckoned.
std::string report(int n) {
    char id[16];
    std::snprintf(id, sizeof id, "%04d", n);
    return std::string("{\"type\":\"alarm\",\"n\":\"") + id + "\",\"pad\":\"" + std::string(40, 'x') + "\"}";
}
const uint64_t kLine = report(0).size() + 1;
const uint64_t kPerFile = 1024 / kLine;  // lines in a file of 1024 bytes

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// Everything a reader gets from `from` on, batch after batch.
std::vector<std::string> readAll(const Stream& stream, uint64_t from = 0, size_t lines = 7, size_t bytes = 1 << 20) {
    SpoolReader reader(stream);
    std::vector<std::string> out;
    for (int guard = 0; guard < 100000; ++guard) {
        Batch batch;
        std::string error;
        EXPECT_TRUE(reader.read(from, lines, bytes, batch, error)) << error;
        if (batch.moved) from = batch.movedTo;
        if (batch.lines.empty()) break;
        for (const Line& l : batch.lines) {
            EXPECT_EQ(l.offset, from);
            out.push_back(l.text);
            from = l.end;
        }
    }
    return out;
}

struct Fixture : ::testing::Test {
    TempDir root;
    Stream stream{root.path() + "/spool", "reports.jsonl"};
    std::optional<uint64_t> floor;  // what the sinks still need
    SpoolWriter::Floor floorFn() {
        return [this] { return floor; };
    }
};

}  // namespace

TEST_F(Fixture, RotatesBySizeAndReadsBackInOrderAcrossFiles) {
    SpoolWriter w(stream, SpoolLimits{1024, 1 << 20, false}, floorFn());
    std::string error;
    ASSERT_TRUE(w.open(error)) << error;
    std::vector<std::string> written;
    for (int i = 0; i < 100; ++i) {
        written.push_back(report(i));
        ASSERT_TRUE(w.append(written.back(), error)) << error;
    }
    const unsigned rotated = static_cast<unsigned>((100 - 1) / kPerFile);
    EXPECT_TRUE(exists(stream.rotated(1)));
    EXPECT_TRUE(exists(stream.rotated(rotated)));
    EXPECT_FALSE(exists(stream.rotated(rotated + 1)));
    // Higher is older: the highest holds the first report.
    EXPECT_EQ(readFile(stream.rotated(rotated)).substr(0, written[0].size()), written[0]);
    struct stat st;
    ASSERT_EQ(::stat(stream.rotated(1).c_str(), &st), 0);
    EXPECT_LE(st.st_size, 1024);
    EXPECT_EQ(readAll(stream), written);
    EXPECT_EQ(w.dropped(), 0u);
}

TEST_F(Fixture, BoundCountsOnlyWhatSomeSinkHadNotSent) {
    struct Case {
        const char* name;
        std::optional<uint64_t> floor;  // nullopt: no sink; UINT64_MAX: all sent
        bool expectDrops;
    } cases[] = {
        {"a sink at the start", uint64_t{0}, true},
        {"every sink done", UINT64_MAX, false},
        {"no sink at all", std::nullopt, false},
    };
    for (const Case& c : cases) {
        TempDir dir;
        Stream s{dir.path(), "reports.jsonl"};
        std::optional<uint64_t> floor = c.floor;
        SpoolWriter w(s, SpoolLimits{1024, 4096, false}, [&] { return floor; });
        std::string error;
        ASSERT_TRUE(w.open(error)) << error;
        for (int i = 0; i < 200; ++i) ASSERT_TRUE(w.append(report(i), error)) << c.name << ": " << error;
        EXPECT_LE(w.totalBytes(), 4096u) << c.name;
        std::vector<std::string> left = readAll(s);
        ASSERT_FALSE(left.empty());
        EXPECT_EQ(left.back(), report(199)) << c.name;
        if (c.expectDrops) {
            // Exactly the lines no longer on disk.
            EXPECT_EQ(w.dropped(), 200u - left.size()) << c.name;
        } else {
            EXPECT_EQ(w.dropped(), 0u) << c.name;
        }
        // The count survives a restart and is what a reader sees.
        SpoolWriter again(s, SpoolLimits{1024, 4096, false}, [&] { return floor; });
        ASSERT_TRUE(again.open(error)) << error;
        EXPECT_EQ(again.dropped(), w.dropped()) << c.name;
        Extent e;
        ASSERT_TRUE(SpoolReader(s).extent(e, error)) << error;
        EXPECT_EQ(e.dropped, w.dropped()) << c.name;
        EXPECT_EQ(e.end, again.end()) << c.name;
    }
}

TEST_F(Fixture, PartlySentFileCountsOnlyItsUnsentLines) {
    SpoolWriter w(stream, SpoolLimits{1024, 2048, false}, floorFn());
    std::string error;
    ASSERT_TRUE(w.open(error)) << error;
    floor = 5 * kLine;                                     // the slowest sink has the first five
    const int count = static_cast<int>(2 * kPerFile + 1);  // the first file has to go
    for (int i = 0; i < count; ++i) ASSERT_TRUE(w.append(report(i), error)) << error;
    std::vector<std::string> left = readAll(stream);
    EXPECT_EQ(left.front(), report(static_cast<int>(kPerFile)));
    EXPECT_EQ(w.dropped(), kPerFile - 5);
}

TEST_F(Fixture, RefusedLinesAreCountedAndNothingElseIsLost) {
    SpoolWriter w(stream, SpoolLimits{1024, 1 << 20, false}, floorFn());
    std::string error;
    ASSERT_TRUE(w.open(error)) << error;
    ASSERT_TRUE(w.append(report(1), error));
    EXPECT_FALSE(w.append(std::string(2000, 'y'), error));
    EXPECT_NE(error.find("max_file_bytes"), std::string::npos) << error;
    ASSERT_TRUE(w.append("{\"a\":\n1}", error)) << error;  // a line break inside stays one line
    EXPECT_EQ(w.dropped(), 1u);
    EXPECT_EQ(readAll(stream), (std::vector<std::string>{report(1), "{\"a\": 1}"}));
}

TEST_F(Fixture, TornLastLineIsRemovedAndCountedOnOpen) {
    {
        SpoolWriter w(stream, SpoolLimits{}, floorFn());
        std::string error;
        ASSERT_TRUE(w.open(error)) << error;
        ASSERT_TRUE(w.append(report(1), error));
    }
    FILE* f = std::fopen(stream.live().c_str(), "a");
    std::fputs("{\"type\":\"al", f);
    std::fclose(f);
    SpoolWriter w(stream, SpoolLimits{}, floorFn());
    std::string error;
    ASSERT_TRUE(w.open(error)) << error;
    EXPECT_EQ(w.dropped(), 1u);
    ASSERT_TRUE(w.append(report(2), error));
    EXPECT_EQ(readAll(stream), (std::vector<std::string>{report(1), report(2)}));
}

TEST_F(Fixture, RotationCutShortKeepsOffsetsBecauseInodesSurviveRenames) {
    std::string error;
    uint64_t endBefore = 0;
    {
        SpoolWriter w(stream, SpoolLimits{1024, 1 << 20, false}, floorFn());
        ASSERT_TRUE(w.open(error)) << error;
        for (int i = 0; i < 20; ++i) ASSERT_TRUE(w.append(report(i), error));
        endBefore = w.end();
    }
    // A crash after the renames, before the new state was written.
    ASSERT_EQ(std::rename(stream.rotated(1).c_str(), stream.rotated(2).c_str()), 0);
    ASSERT_EQ(std::rename(stream.live().c_str(), stream.rotated(1).c_str()), 0);
    SpoolWriter w(stream, SpoolLimits{1024, 1 << 20, false}, floorFn());
    ASSERT_TRUE(w.open(error)) << error;
    EXPECT_EQ(w.end(), endBefore);
    ASSERT_TRUE(w.append(report(20), error));
    std::vector<std::string> all = readAll(stream);
    ASSERT_EQ(all.size(), 21u);
    EXPECT_EQ(all.back(), report(20));
    // A cursor inside the old data still lands on the same line.
    std::vector<std::string> tail = readAll(stream, kLine * 15);
    EXPECT_EQ(tail.front(), report(15));
}

TEST_F(Fixture, LostStateStartsPastEveryCursorSoNothingIsSkipped) {
    std::string error;
    {
        SpoolWriter w(stream, SpoolLimits{}, floorFn());
        ASSERT_TRUE(w.open(error)) << error;
        for (int i = 0; i < 3; ++i) ASSERT_TRUE(w.append(report(i), error));
        ASSERT_TRUE(writeCursor(stream, "http", w.end(), error)) << error;
    }
    uint64_t cursor = readCursor(stream, "http");
    ASSERT_EQ(std::remove(stream.statePath().c_str()), 0);
    SpoolWriter w(stream, SpoolLimits{}, floorFn());
    ASSERT_TRUE(w.open(error)) << error;
    ASSERT_TRUE(w.append(report(3), error));
    // The sink's old position is now the start: it sends all four again
    // rather than miss the new one.
    std::vector<std::string> fromCursor = readAll(stream, cursor);
    ASSERT_EQ(fromCursor.size(), 4u);
    EXPECT_EQ(fromCursor.back(), report(3));
}

TEST_F(Fixture, ReaderBatchesByLinesAndBytesAndSkipsRemovedData) {
    SpoolWriter w(stream, SpoolLimits{1024, 2048, false}, floorFn());
    std::string error;
    ASSERT_TRUE(w.open(error)) << error;
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(w.append(report(i), error));
    SpoolReader reader(stream);
    Batch batch;
    ASSERT_TRUE(reader.read(0, 3, 1 << 20, batch, error)) << error;
    EXPECT_EQ(batch.lines.size(), 3u);
    ASSERT_TRUE(reader.read(0, 100, report(0).size() * 2 + 2, batch, error)) << error;
    EXPECT_EQ(batch.lines.size(), 2u);
    ASSERT_TRUE(reader.read(0, 100, 1, batch, error)) << error;
    EXPECT_EQ(batch.lines.size(), 1u) << "one line always, however small the byte limit";
    // A line still being written is not handed out.
    FILE* f = std::fopen(stream.live().c_str(), "a");
    std::fputs("{\"partial\":", f);
    std::fclose(f);
    EXPECT_EQ(readAll(stream).size(), 10u);

    for (int i = 10; i < 60; ++i) ASSERT_TRUE(w.append(report(i), error));  // the first file goes
    ASSERT_TRUE(reader.read(0, 1, 1 << 20, batch, error)) << error;
    EXPECT_TRUE(batch.moved);
    ASSERT_EQ(batch.lines.size(), 1u);
    EXPECT_EQ(batch.lines[0].offset, batch.movedTo);
    EXPECT_NE(batch.lines[0].text, report(0));
}

TEST(SpoolStateText, ParsesWhatItWritesAndRefusesTheRest) {
    SpoolState s;
    s.generation = 7;
    s.files = {{"reports.jsonl.1", 18446744073709551615ull, 0}, {"reports.jsonl", 12, 4096}};
    s.dropped = 3;
    s.droppedBytes = 300;
    SpoolState back;
    std::string error;
    ASSERT_TRUE(parseState(formatState(s), back, error)) << error;
    EXPECT_EQ(back.generation, 7u);
    ASSERT_EQ(back.files.size(), 2u);
    EXPECT_EQ(back.files[0].ino, 18446744073709551615ull);
    EXPECT_EQ(back.files[1].start, 4096u);
    EXPECT_EQ(back.dropped, 3u);

    const char* bad[] = {
        "",
        "[]",
        "{\"generation\":1,\"dropped\":0,\"dropped_bytes\":0}",
        "{\"generation\":-1,\"files\":[],\"dropped\":0,\"dropped_bytes\":0}",
        "{\"generation\":1.5,\"files\":[],\"dropped\":0,\"dropped_bytes\":0}",
        "{\"generation\":1,\"files\":[{\"name\":\"../"
        "x\",\"ino\":\"1\",\"start\":0}],\"dropped\":0,\"dropped_bytes\":0}",
        "{\"generation\":1,\"files\":[{\"name\":\"a\",\"ino\":\"-1\",\"start\":0}],\"dropped\":0,\"dropped_bytes\":0}",
        "{\"generation\":1,\"files\":[{\"name\":\"a\",\"ino\":\"1\",\"start\":9},{\"name\":\"b\",\"ino\":\"2\","
        "\"start\":3}],"
        "\"dropped\":0,\"dropped_bytes\":0}",
    };
    for (const char* text : bad) EXPECT_FALSE(parseState(text, back, error)) << text;

    uint64_t offset = 0;
    EXPECT_TRUE(parseCursor(formatCursor(123456789012ull), offset));
    EXPECT_EQ(offset, 123456789012ull);
    for (const char* text : {"", "{}", "{\"offset\":-5}", "{\"offset\":\"5\"}", "{\"offset\":1e300}"}) {
        EXPECT_FALSE(parseCursor(text, offset)) << text;
    }
}
