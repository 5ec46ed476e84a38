#include <gtest/gtest.h>

#include <string>

#include "dirutils.h"

namespace {

// Leaves the installation directory to the environment again afterwards.
struct InstallDirGuard {
    explicit InstallDirGuard(const char* dir) { dirutils_set_install_dir(dir); }
    ~InstallDirGuard() { dirutils_set_install_dir(nullptr); }
};

TEST(DirutilsTransform, LeadingAtBecomesTheInstallDirectoryTextually) {
    InstallDirGuard guard("/opt/kem/bin");
    const struct {
        const char* pattern;
        size_t size;
        const char* expected;
    } cases[] = {
        {"@/../config/whitelist_port.cfg", 1024, "/opt/kem/bin/../config/whitelist_port.cfg"},
        {"@", 1024, "/opt/kem/bin"},
        {"@lib", 1024, "/opt/kem/binlib"},
        {"relative/@/x", 1024, "relative/@/x"},
        {"", 1024, ""},
        // Cut to the buffer, always terminated.
        {"@/../x.ini", 1, ""},
        {"@/../x.ini", 13, "/opt/kem/bin"},
        {"@/../x.ini", 14, "/opt/kem/bin/"},
        {"@/../x.ini", 22, "/opt/kem/bin/../x.ini"},
    };
    for (const auto& c : cases) {
        std::string buf(c.size + 8, '#');
        EXPECT_EQ(dirutils_path_transform(c.pattern, &buf[0], c.size), 0);
        EXPECT_STREQ(buf.c_str(), c.expected) << c.pattern << " in " << c.size;
        EXPECT_EQ(buf[c.size], '#') << "wrote past a buffer of " << c.size;
    }
    EXPECT_EQ(dirutils_path_transform("@/x", nullptr, 0), -1);
}

}  // namespace
