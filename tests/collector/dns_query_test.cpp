#include "dns_query.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// A query header (id 0x1234, recursion desired, one question) and the name.
std::vector<uint8_t> query(const std::vector<uint8_t>& name, uint8_t flags = 0x01) {
    // Built byte by byte: GCC 12 misreads inserts into a fresh vector as
    // out-of-bounds copies once sanitizer code is inlined.
    std::vector<uint8_t> bytes = {0x12, 0x34, flags, 0x00, 0x00, 0x01, 0, 0, 0, 0, 0, 0};
    bytes.reserve(bytes.size() + name.size() + 4);
    for (uint8_t byte : name) bytes.push_back(byte);
    for (uint8_t byte : {0x00, 0x01, 0x00, 0x01}) bytes.push_back(byte);  // A, IN
    return bytes;
}

const std::vector<uint8_t> kExampleOrg = {7, 'e', 'x', 'a', 'm', 'p', 'l', 'e', 3, 'o', 'r', 'g', 0};

TEST(CollectorDnsQuery, ReadsTheFirstQuestion) {
    auto bytes = query(kExampleOrg);
    EXPECT_EQ(wlc::parseDnsQueryName(bytes.data(), bytes.size()).value_or("?"), "example.org");
    auto root = query({0});
    EXPECT_EQ(wlc::parseDnsQueryName(root.data(), root.size()).value_or("?"), ".");
}

TEST(CollectorDnsQuery, RefusesWhatIsNoQuery) {
    struct Case {
        const char* what;
        std::vector<uint8_t> bytes;
    };
    auto response = query(kExampleOrg, 0x81);
    auto noQuestion = query(kExampleOrg);
    noQuestion[5] = 0;
    auto cut = query(kExampleOrg);
    cut.resize(12 + 5);
    auto pointer = query({0xc0, 0x0c});
    auto dotInLabel = query({3, 'a', '.', 'b', 0});
    std::vector<uint8_t> longName;
    for (int i = 0; i < 5; ++i) {
        longName.push_back(63);
        longName.insert(longName.end(), 63, 'x');
    }
    longName.push_back(0);
    const Case cases[] = {
        {"empty", {}},
        {"header only", std::vector<uint8_t>(12, 0)},
        {"a response", response},
        {"no question", noQuestion},
        {"a label past the end", cut},
        {"a compression pointer", pointer},
        {"a dot inside a label", dotInLabel},
        {"a name over 253 characters", query(longName)},
    };
    for (const Case& c : cases) {
        EXPECT_FALSE(wlc::parseDnsQueryName(c.bytes.data(), c.bytes.size()).has_value()) << c.what;
    }
}

}  // namespace
