#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "orv_xmsg.h"

namespace {

struct XmsgRelease {
    void operator()(void* msg) const { orv_xmsg_release(msg); }
};
using Xmsg = std::unique_ptr<void, XmsgRelease>;

std::vector<unsigned char> pack(void* msg) {
    int size = orv_xmsg_pack_size(msg);
    EXPECT_GT(size, 0);
    std::vector<unsigned char> buf(static_cast<size_t>(size));
    EXPECT_EQ(orv_xmsg_pack(msg, buf.data(), buf.size()), size);
    return buf;
}

std::string valueOf(void* msg, const char* key) {
    size_t len = 0;
    const void* value = orv_xmsg_get(msg, key, &len);
    return value ? std::string(static_cast<const char*>(value), len) : "<absent>";
}

Xmsg sampleMessage() {
    Xmsg msg(orv_xmsg_new("module_switch"));
    const std::string binary("\x00\x01\xff\x00z", 5);
    orv_xmsg_add(msg.get(), "module", 6, "whitelist", 9);
    orv_xmsg_add(msg.get(), "blob", 4, binary.data(), binary.size());
    orv_xmsg_add(msg.get(), "empty", 5, nullptr, 0);
    orv_xmsg_add(msg.get(), "module", 6, "second", 6);     // a later duplicate
    orv_xmsg_add(msg.get(), "keyIGNORED", 3, "cut", 3);    // only 3 bytes of key
    return msg;
}

TEST(OrvXmsg, PackedBytesFollowTheWireLayout) {
    Xmsg msg(orv_xmsg_new("ab"));
    ASSERT_EQ(orv_xmsg_add(msg.get(), "k", 1, "xyz", 3), 0);
    const std::vector<unsigned char> expected = {'X', 'M', 'S', 'G', 2, 0, 'a', 'b', 1, 0,
                                                 1,   0,   'k', 3,   0, 0, 0,   'x', 'y', 'z'};
    EXPECT_EQ(pack(msg.get()), expected);
}

TEST(OrvXmsg, RoundTripKeepsNameAndBinaryFields) {
    Xmsg msg = sampleMessage();
    std::vector<unsigned char> bytes = pack(msg.get());
    Xmsg back(orv_xmsg_unpack(bytes.data(), bytes.size()));
    ASSERT_TRUE(back);
    EXPECT_STREQ(orv_xmsg_name(back.get()), "module_switch");
    const struct {
        const char* key;
        std::string value;
    } cases[] = {
        {"module", "whitelist"},  // the first of two
        {"blob", std::string("\x00\x01\xff\x00z", 5)},
        {"empty", ""},
        {"key", "cut"},
        {"keyIGNORED", "<absent>"},
        {"missing", "<absent>"},
    };
    for (const auto& c : cases) EXPECT_EQ(valueOf(back.get(), c.key), c.value) << c.key;
    EXPECT_EQ(pack(back.get()), bytes) << "repacking gives the same bytes";
}

TEST(OrvXmsg, PackRefusesEveryBufferThatIsTooSmall) {
    Xmsg msg = sampleMessage();
    int size = orv_xmsg_pack_size(msg.get());
    std::vector<unsigned char> buf(static_cast<size_t>(size) + 1, 0xAA);
    for (int n = 0; n < size; ++n) {
        EXPECT_LT(orv_xmsg_pack(msg.get(), buf.data(), static_cast<size_t>(n)), 0) << n;
    }
    EXPECT_EQ(orv_xmsg_pack(msg.get(), buf.data(), buf.size()), size);
    EXPECT_EQ(buf.back(), 0xAA) << "wrote past the packed size";
    EXPECT_LT(orv_xmsg_pack(msg.get(), nullptr, 100), 0);
}

TEST(OrvXmsg, UnpackRejectsMalformedBuffers) {
    Xmsg msg = sampleMessage();
    std::vector<unsigned char> bytes = pack(msg.get());
    for (size_t n = 0; n < bytes.size(); ++n) {
        Xmsg cut(orv_xmsg_unpack(bytes.data(), n));
        EXPECT_FALSE(cut) << "accepted a buffer cut to " << n << " bytes";
    }

    std::vector<unsigned char> trailing = bytes;
    trailing.push_back(0);
    EXPECT_FALSE(Xmsg(orv_xmsg_unpack(trailing.data(), trailing.size())));

    std::vector<unsigned char> badMagic = bytes;
    badMagic[0] = 'Y';
    EXPECT_FALSE(Xmsg(orv_xmsg_unpack(badMagic.data(), badMagic.size())));

    // A value length that claims more than the buffer holds.
    Xmsg small(orv_xmsg_new("n"));
    orv_xmsg_add(small.get(), "k", 1, "v", 1);
    std::vector<unsigned char> lying = pack(small.get());
    lying[lying.size() - 2] = 0xFF;  // high byte of the u32 length
    EXPECT_FALSE(Xmsg(orv_xmsg_unpack(lying.data(), lying.size())));

    EXPECT_FALSE(Xmsg(orv_xmsg_unpack(nullptr, 10)));
}

TEST(OrvXmsg, BadArgumentsAreRefused) {
    Xmsg msg(orv_xmsg_new("n"));
    EXPECT_EQ(orv_xmsg_new(nullptr), nullptr);
    EXPECT_NE(orv_xmsg_add(msg.get(), nullptr, 1, "v", 1), 0);
    EXPECT_NE(orv_xmsg_add(msg.get(), "k", 1, nullptr, 4), 0);
    EXPECT_NE(orv_xmsg_add(nullptr, "k", 1, "v", 1), 0);
    EXPECT_LT(orv_xmsg_pack_size(nullptr), 0);
    EXPECT_EQ(orv_xmsg_get(msg.get(), "k", nullptr), nullptr);
    // Refused fields left the message as it was.
    EXPECT_EQ(orv_xmsg_pack_size(msg.get()), 4 + 2 + 1 + 2);
}

}  // namespace
