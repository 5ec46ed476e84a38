#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "orv_xmsg.h"

namespace {

struct XmsgRelease {
    void operator()(void* msg) const { orv_xmsg_release(msg); }
};
using Xmsg = std::unique_ptr<void, XmsgRelease>;
using Bytes = std::vector<unsigned char>;

Bytes pack(void* msg) {
    Bytes buf(static_cast<size_t>(orv_xmsg_pack_size(msg)));
    EXPECT_EQ(orv_xmsg_pack(msg, buf.data(), buf.size()), static_cast<int>(buf.size()));
    return buf;
}

const std::string kBinary("\x00\x01\xff\x00z", 5);

Bytes sampleBytes() {
    Xmsg msg(orv_xmsg_new("module_switch"));
    orv_xmsg_add(msg.get(), "module", 6, "whitelist", 9);
    orv_xmsg_add(msg.get(), "blob", 4, kBinary.data(), kBinary.size());
    orv_xmsg_add(msg.get(), "empty", 5, nullptr, 0);
    orv_xmsg_add(msg.get(), "module", 6, "second", 6);   // a later duplicate
    orv_xmsg_add(msg.get(), "keyIGNORED", 3, "cut", 3);  // only 3 bytes of key
    return pack(msg.get());
}

TEST(OrvXmsg, PackedBytesFollowTheWireLayout) {
    Xmsg msg(orv_xmsg_new("ab"));
    ASSERT_EQ(orv_xmsg_add(msg.get(), "k", 1, "xyz", 3), 0);
    const Bytes expected = {'X', 'M', 'S', 'G', 2, 0, 'a', 'b', 1, 0, 1, 0, 'k', 3, 0, 0, 0, 'x', 'y', 'z'};
    EXPECT_EQ(pack(msg.get()), expected);
}

TEST(OrvXmsg, RoundTripKeepsNameAndBinaryFields) {
    Bytes bytes = sampleBytes();
    Xmsg back(orv_xmsg_unpack(bytes.data(), bytes.size()));
    ASSERT_TRUE(back);
    EXPECT_STREQ(orv_xmsg_name(back.get()), "module_switch");
    const std::pair<const char*, std::string> cases[] = {
        {"module", "whitelist"},  // the first of two
        {"blob", kBinary},       {"empty", ""}, {"key", "cut"}, {"keyIGNORED", "<absent>"},
    };
    for (const auto& c : cases) {
        size_t len = 0;
        const void* value = orv_xmsg_get(back.get(), c.first, &len);
        EXPECT_EQ(value ? std::string(static_cast<const char*>(value), len) : "<absent>", c.second) << c.first;
    }
    EXPECT_EQ(pack(back.get()), bytes) << "repacking gives the same bytes";
}

TEST(OrvXmsg, TruncatedAndMalformedBuffersAreRefused) {
    const Bytes bytes = sampleBytes();
    Xmsg msg(orv_xmsg_unpack(bytes.data(), bytes.size()));
    Bytes out(bytes.size());
    for (size_t n = 0; n < bytes.size(); ++n) {
        EXPECT_FALSE(Xmsg(orv_xmsg_unpack(bytes.data(), n))) << "unpacked a cut to " << n << " bytes";
        EXPECT_LT(orv_xmsg_pack(msg.get(), out.data(), n), 0) << "packed into " << n << " bytes";
    }
    const std::pair<const char*, std::function<void(Bytes&)>> cases[] = {
        {"a trailing byte", [](Bytes& b) { b.push_back(0); }},
        {"a wrong magic", [](Bytes& b) { b[0] = 'Y'; }},
        {"a field count past the end", [](Bytes& b) { b[4 + 2 + 13]++; }},
        {"a value length past the end", [](Bytes& b) { b[b.size() - 4] = 0xFF; }},  // high byte of the last one
    };
    for (const auto& c : cases) {
        Bytes spoilt = bytes;
        c.second(spoilt);
        EXPECT_FALSE(Xmsg(orv_xmsg_unpack(spoilt.data(), spoilt.size()))) << c.first;
    }
}

}  // namespace
