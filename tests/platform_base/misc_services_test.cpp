#include <gtest/gtest.h>

#include <string>

#include "kem_status.h"
#include "orv_dll.h"
#include "str_utils.h"
#include "temp_dir.h"

// Looked up through the process's global scope (the test exports its symbols).
extern "C" int platform_base_test_marker(int x) {
    return x + 1;
}

namespace {

TEST(StrSnprintf, ReturnsWhatWasWrittenAndAlwaysTerminates) {
    const struct {
        size_t size;
        const char* text;
        int length;
    } cases[] = {{1, "", 0}, {2, "-", 1}, {5, "-1:a", 4}, {6, "-1:ab", 5}, {7, "-1:abc", 6}, {64, "-1:abc", 6}};
    for (const auto& c : cases) {
        std::string buf(c.size + 4, '#');
        int n = str_snprintf(&buf[0], c.size, "%ld:%s", -1L, "abc");
        EXPECT_EQ(n, c.length) << c.size;
        EXPECT_STREQ(buf.c_str(), c.text) << c.size;
        EXPECT_EQ(buf[c.size], '#') << "wrote past a buffer of " << c.size;
    }
    char untouched = '#';
    EXPECT_EQ(str_snprintf(&untouched, 0, "%s", "x"), 0);
    EXPECT_EQ(untouched, '#');
}

TEST(KemStatus, StartsAtOneAndKeepsWhatIsSet) {
    EXPECT_EQ(get_kem_status(), 1);
    set_kem_status(2);
    EXPECT_EQ(get_kem_status(), 2);
    set_kem_status(1);
}

TEST(OrvDll, OpensLooksUpAndCloses) {
    void* handle = nullptr;
    ASSERT_EQ(orv_dll_open("libkembase.so", &handle), 0);
    ASSERT_NE(handle, nullptr);
    void* address = nullptr;
    EXPECT_EQ(orv_dll_get_addr(handle, "str_snprintf", &address), 0);
    EXPECT_EQ(address, reinterpret_cast<void*>(&str_snprintf));
    EXPECT_NE(orv_dll_get_addr(handle, "no_such_symbol_here", &address), 0);
    EXPECT_EQ(orv_dll_close(handle), 0);

    // A null handle looks in the whole process.
    ASSERT_EQ(orv_dll_get_addr(nullptr, "platform_base_test_marker", &address), 0);
    EXPECT_EQ(reinterpret_cast<int (*)(int)>(address)(41), 42);
}

TEST(OrvDll, MissingLibraryLeavesTheHandleAlone) {
    void* handle = reinterpret_cast<void*>(0x1);
    EXPECT_NE(orv_dll_open("/nonexistent/libnothing.so", &handle), 0);
    EXPECT_EQ(handle, reinterpret_cast<void*>(0x1));
}

}  // namespace
