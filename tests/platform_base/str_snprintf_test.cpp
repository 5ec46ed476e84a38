#include <gtest/gtest.h>

#include <string>

#include "str_utils.h"

namespace {

TEST(StrSnprintf, ReturnsWhatWasWrittenAndAlwaysTerminates) {
    const struct {
        size_t size;
        const char* text;
        int length;
    } cases[] = {{1, "", 0}, {2, "-", 1}, {6, "-1:ab", 5}, {7, "-1:abc", 6}, {64, "-1:abc", 6}};
    for (const auto& c : cases) {
        std::string buf(c.size + 4, '#');
        EXPECT_EQ(str_snprintf(&buf[0], c.size, "%ld:%s", -1L, "abc"), c.length) << c.size;
        EXPECT_STREQ(buf.c_str(), c.text) << c.size;
        EXPECT_EQ(buf[c.size], '#') << "wrote past a buffer of " << c.size;
    }
}

}  // namespace
