// The seven free text functions, with the edge behaviour the records rely on.
#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <stdexcept>

#include "transformer.h"

namespace {

// Parses one JSON value for a reader test.
rapidjson::Document parsed(const char* json) {
    rapidjson::Document doc;
    doc.Parse(json);
    EXPECT_FALSE(doc.HasParseError()) << json;
    return doc;
}

TEST(TransformerGetJsonInt, ReadsIntegersAndTheTextAfterTheLastColon) {
    struct Case {
        const char* json;
        uint64_t expected;
    };
    const Case cases[] = {
        {"443", 443},
        {"18446744073709551615", 18446744073709551615ULL},
        {"4294967296", 4294967296ULL},  // integers keep all 64 bits
        {"-1", 0},
        {"1.5", 0},
        {"8080.0", 0},
        {"true", 0},
        {"null", 0},
        {"{\"a\":1}", 0},
        {"[1]", 0},
        {"\"443\"", 443},
        {"\"10.0.0.1:8080\"", 8080},
        {"\"fe80::1:22\"", 22},
        {"\"host:\"", 0},
        {"\"abc\"", 0},
        {"\"12abc\"", 12},
        {"\" 7\"", 7},
        {"\"-1\"", 4294967295ULL},  // strtoul wraps a negative text
        {"\"4294967296\"", 4294967295ULL},  // texts are 32-bit: beyond saturates
        {"\"99999999999999999999999\"", 4294967295ULL},
    };
    for (const Case& c : cases) {
        rapidjson::Document doc = parsed(c.json);
        EXPECT_EQ(getJsonInt(&doc), c.expected) << c.json;
    }
    EXPECT_EQ(getJsonInt(nullptr), 0u);
}

TEST(TransformerGetJsonString, ReadsTextsAndPrintsLow32BitsSigned) {
    struct Case {
        const char* json;
        const char* expected;
    };
    const Case cases[] = {
        {"\"plain\"", "plain"},
        {"\"a\\u0000b\"", "a"},  // up to the first zero byte
        {"\"\"", ""},
        {"8080", "8080"},
        {"0", "0"},
        {"4294967295", "-1"},
        {"2147483648", "-2147483648"},
        {"4294967296", "0"},
        {"-5", ""},
        {"1.5", ""},
        {"true", ""},
        {"null", ""},
        {"[\"x\"]", ""},
        {"{\"k\":\"v\"}", ""},
    };
    for (const Case& c : cases) {
        rapidjson::Document doc = parsed(c.json);
        EXPECT_EQ(getJsonString(&doc), c.expected) << c.json;
    }
    EXPECT_EQ(getJsonString(nullptr), "");
}

TEST(TransformerGetJsonValue, EmptyTextKeepsTheDefault) {
    std::string protocol = "tcp";
    getJsonValue(protocol, "");
    EXPECT_EQ(protocol, "tcp");
    getJsonValue(protocol, "udp");
    EXPECT_EQ(protocol, "udp");
}

// A field pre-filled with a marker shows which elements were written.
constexpr wchar_t kMarker = 0x7E7E7E7E;

TEST(TransformerStringToWchart, StoresWithinCapacityAndLeavesTheLastElementOfAFullField) {
    struct Case {
        int capacity;
        std::string text;
        std::vector<wchar_t> expected;  // the first six elements afterwards
    };
    const wchar_t M = kMarker;
    const Case cases[] = {
        {4, "tcp", {'t', 'c', 'p', 0, M, M}},
        {4, "tcp6", {'t', 'c', 'p', M, M, M}},
        {4, "tcp6-long", {'t', 'c', 'p', M, M, M}},
        {4, "", {0, M, M, M, M, M}},
        {1, "a", {M, M, M, M, M, M}},
        {0, "a", {M, M, M, M, M, M}},
        {0, "", {0, M, M, M, M, M}},
        {6, std::string("ab\0cd", 5), {'a', 'b', 0, M, M, M}},
        {3, "\xE4", {static_cast<wchar_t>(0xFFFFFFE4), 0, M, M, M, M}},
        {6, "\x7F\x80", {0x7F, static_cast<wchar_t>(0xFFFFFF80), 0, M, M, M}},
    };
    for (const Case& c : cases) {
        wchar_t field[6];
        std::fill(std::begin(field), std::end(field), kMarker);
        stringToWchart(field, c.capacity, c.text);
        EXPECT_EQ(std::vector<wchar_t>(field, field + 6), c.expected)
            << "capacity " << c.capacity << " text '" << c.text << "'";
    }
    stringToWchart(nullptr, 4, "abc");  // a null target is ignored
}

TEST(TransformerWcharToString, KeepsTheLowByteOfEachElement) {
    const wchar_t sample[] = {static_cast<wchar_t>(0xFFFFFFE4), 'a', static_cast<wchar_t>(0x12345641), 0, 'z'};
    EXPECT_EQ(wcharToString(sample), std::string("\xE4" "aA"));
    const wchar_t empty[] = {0, 'x'};
    EXPECT_EQ(wcharToString(empty), "");

    // Narrow to wide and back gives the same bytes.
    std::string allBytes;
    for (int b = 1; b < 256; ++b) allBytes.push_back(static_cast<char>(b));
    std::vector<wchar_t> wide(300, kMarker);
    stringToWchart(wide.data(), static_cast<int>(wide.size()), allBytes);
    EXPECT_EQ(wcharToString(wide.data()), allBytes);
}

TEST(TransformerSpiltDnsIp, ReducesToTheHostPart) {
    struct Case {
        const char* text;
        const char* expected;
    };
    const Case cases[] = {
        {"scheme://10.0.0.1:8080/index", "10.0.0.1"},
        {"http://example.com/a:b", "example.com/a"},
        {"10.0.0.1:80", "10.0.0.1"},
        {"10.0.0.1", "10.0.0.1"},
        {"abc", "abc"},
        {"", ""},
        {"/a/b", "/b"},
        {"fe80::1", "fe80:"},
        {"ab/c", ""},
        {"a/", nullptr},
        {"abc/", nullptr},
        {"/", nullptr},
    };
    for (const Case& c : cases) {
        if (c.expected != nullptr) {
            EXPECT_EQ(spiltDnsIp(c.text), c.expected) << c.text;
        } else {
            EXPECT_THROW(spiltDnsIp(c.text), std::out_of_range) << c.text;
        }
    }
}

}  // namespace
