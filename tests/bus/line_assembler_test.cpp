// Cutting a probe's byte stream into texts.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "line_assembler.h"

namespace {

struct Outcome {
    std::vector<std::string> lines;
    std::vector<std::string> refusals;
};

Outcome assemble(const std::vector<std::string>& chunks, std::size_t limit, bool finish) {
    Outcome out;
    orv_rasp::LineAssembler lines(
        limit, [&](const std::string& line) { out.lines.push_back(line); },
        [&](orv_rasp::LineRefusal reason, std::size_t length) {
            out.refusals.push_back((reason == orv_rasp::LineRefusal::Blank ? "blank:" : "long:") +
                                   std::to_string(length));
        });
    for (const std::string& chunk : chunks) {
        lines.feed(chunk.data(), chunk.size());
    }
    if (finish) {
        lines.finish();
    }
    return out;
}

TEST(BusLineAssembler, SplitsRefusesAndRecovers) {
    struct Case {
        const char* name;
        std::vector<std::string> chunks;
        bool finish;
        std::vector<std::string> lines;
        std::vector<std::string> refusals;
    } cases[] = {
        {"two lines in one chunk", {"a\nb\n"}, false, {"a", "b"}, {}},
        {"line across chunks", {"ab", "c", "d\n"}, false, {"abcd"}, {}},
        {"carriage return dropped", {"x\r\n"}, false, {"x"}, {}},
        {"unfinished line waits", {"abc"}, false, {}, {}},
        {"unfinished line counts at the end", {"abc"}, true, {"abc"}, {}},
        {"blank lines refused", {"\n \t\r\nz\n"}, false, {"z"}, {"blank:0", "blank:3"}},
        {"exactly at the limit", {"12345678\n"}, false, {"12345678"}, {}},
        {"over the limit, then on", {"123456789\nok\n"}, false, {"ok"}, {"long:9"}},
        {"over the limit across chunks", {"12345", "6789", "0123\nok"}, true, {"ok"}, {"long:13"}},
        {"nothing at the end", {"a\n"}, true, {"a"}, {}},
        {"embedded NUL kept in the text", {std::string("a\0b\n", 4)}, false, {std::string("a\0b", 3)}, {}},
    };
    for (const Case& c : cases) {
        Outcome out = assemble(c.chunks, 8, c.finish);
        EXPECT_EQ(out.lines, c.lines) << c.name;
        EXPECT_EQ(out.refusals, c.refusals) << c.name;
    }
}

}  // namespace
