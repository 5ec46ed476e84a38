// The free text functions, with the edge behaviour the records rely on.
#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <stdexcept>

#include "transformer.h"

namespace {

rapidjson::Document parsed(const char* json) {
    rapidjson::Document doc;
    doc.Parse(json);
    EXPECT_FALSE(doc.HasParseError()) << json;
    return doc;
}

TEST(TransformerJsonReaders, IntegersAndTextsWithTheirEdges) {
    struct Case {
        const char* json;
        uint64_t asInt;
        const char* asString;
    };
    const Case cases[] = {
        {"443", 443, "443"},
        {"18446744073709551615", 18446744073709551615ULL, "-1"},  // integers keep 64 bits, print the low 32 signed
        {"4294967296", 4294967296ULL, "0"},
        {"-1", 0, ""},
        {"true", 0, ""},
        {"\"10.0.0.1:8080\"", 8080, "10.0.0.1:8080"},     // after the last colon
        {"\"-1\"", 4294967295ULL, "-1"},                  // strtoul wraps a negative text
        {"\"4294967296\"", 4294967295ULL, "4294967296"},  // texts are 32-bit: beyond saturates
        {"\"a\\u0000b\"", 0, "a"},                        // up to the first zero byte
    };
    for (const Case& c : cases) {
        rapidjson::Document doc = parsed(c.json);
        EXPECT_EQ(getJsonInt(&doc), c.asInt) << c.json;
        EXPECT_EQ(getJsonString(&doc), c.asString) << c.json;
    }
}

constexpr wchar_t M = 0x7E7E7E7E;  // marks elements never written

TEST(TransformerStringToWchart, StoresWithinCapacityAndLeavesTheLastElementOfAFullField) {
    struct Case {
        int capacity;
        std::string text;
        std::vector<wchar_t> expected;  // the first four elements afterwards
    };
    const Case cases[] = {
        {4, "tcp", {'t', 'c', 'p', 0}},
        {4, "tcp6-long", {'t', 'c', 'p', M}},
        {1, "a", {M, M, M, M}},
        {4, std::string("a\0b", 3), {'a', 0, M, M}},
        {3, "\xE4", {static_cast<wchar_t>(0xFFFFFFE4), 0, M, M}},
    };
    for (const Case& c : cases) {
        wchar_t field[4] = {M, M, M, M};
        stringToWchart(field, c.capacity, c.text);
        EXPECT_EQ(std::vector<wchar_t>(field, field + 4), c.expected) << c.capacity << " '" << c.text << "'";
    }
}

TEST(TransformerWcharToString, KeepsTheLowByteAndRoundTrips) {
    const wchar_t sample[] = {static_cast<wchar_t>(0xFFFFFFE4), static_cast<wchar_t>(0x12345641), 0, 'z'};
    EXPECT_EQ(wcharToString(sample), std::string("\xE4"
                                                 "A"));
}

TEST(TransformerSpiltDnsIp, ReducesToTheHostPart) {
    const std::pair<const char*, const char*> cases[] = {
        {"scheme://10.0.0.1:8080/index", "10.0.0.1"},
        {"http://example.com/a:b", "example.com/a"},
        {"10.0.0.1:80", "10.0.0.1"},
        {"/a/b", "/b"},
        {"ab/c", ""},
        {"a/", nullptr},  // a lone trailing slash throws
    };
    for (const auto& [text, expected] : cases) {
        if (expected != nullptr) {
            EXPECT_EQ(spiltDnsIp(text), expected) << text;
        } else {
            EXPECT_THROW(spiltDnsIp(text), std::out_of_range) << text;
        }
    }
}

}  // namespace
