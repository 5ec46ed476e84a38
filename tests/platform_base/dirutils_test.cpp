#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "dirutils.h"
#include "temp_dir.h"

namespace {

// Leaves the installation directory to the environment again afterwards.
class InstallDirGuard {
public:
    explicit InstallDirGuard(const char* dir) { dirutils_set_install_dir(dir); }
    ~InstallDirGuard() { dirutils_set_install_dir(nullptr); }
};

std::string transform(const char* pattern, size_t size = 1024) {
    std::string buf(size, '#');
    EXPECT_EQ(dirutils_path_transform(pattern, &buf[0], size), 0);
    return std::string(buf.c_str());
}

TEST(DirutilsTransform, LeadingAtBecomesTheInstallDirectoryTextually) {
    InstallDirGuard guard("/opt/kem/bin");
    const struct {
        const char* pattern;
        const char* expected;
    } cases[] = {
        {"@/../config/whitelist_port.cfg", "/opt/kem/bin/../config/whitelist_port.cfg"},
        {"@/../var/log/agent/white_list", "/opt/kem/bin/../var/log/agent/white_list"},
        {"@", "/opt/kem/bin"},
        {"@lib", "/opt/kem/binlib"},
        {"/proc/", "/proc/"},
        {"relative/@/x", "relative/@/x"},
        {"x@", "x@"},
        {"", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(transform(c.pattern), c.expected) << c.pattern;
    EXPECT_STREQ(dirutils_get_install_dir(), "/opt/kem/bin");
}

TEST(DirutilsTransform, ResultIsCutToTheBufferAndTerminated) {
    InstallDirGuard guard("/opt/kem/bin");
    const struct {
        size_t size;
        const char* expected;
    } cases[] = {{1, ""}, {2, "/"}, {13, "/opt/kem/bin"}, {14, "/opt/kem/bin/"}, {20, "/opt/kem/bin/../x.ini"}};
    for (const auto& c : cases) {
        std::string buf(c.size + 8, '#');
        ASSERT_EQ(dirutils_path_transform("@/../x.ini", &buf[0], c.size), 0);
        EXPECT_EQ(std::string(buf.c_str()), std::string(c.expected).substr(0, c.size - 1)) << c.size;
        EXPECT_EQ(buf[c.size], '#') << "wrote past the buffer of " << c.size;
    }
}

TEST(DirutilsTransform, NullArgumentsAreRefused) {
    char buf[16];
    EXPECT_EQ(dirutils_path_transform(nullptr, buf, sizeof buf), -1);
    EXPECT_EQ(dirutils_path_transform("@/x", nullptr, sizeof buf), -1);
    EXPECT_EQ(dirutils_path_transform("@/x", buf, 0), -1);
}

TEST(DirutilsInstallDir, FallsBackToTheEnvironmentThenTheWorkingDirectory) {
    dirutils_set_install_dir(nullptr);
    setenv("WL_INSTALL_DIR", "/from/env", 1);
    EXPECT_EQ(transform("@/a"), "/from/env/a");
    unsetenv("WL_INSTALL_DIR");
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    EXPECT_EQ(transform("@/a"), std::string(cwd) + "/a");
    {
        // A directory set by the host wins over the environment.
        setenv("WL_INSTALL_DIR", "/from/env", 1);
        InstallDirGuard guard("/set/by/host");
        EXPECT_EQ(transform("@/a"), "/set/by/host/a");
    }
    EXPECT_EQ(transform("@/a"), "/from/env/a");
    unsetenv("WL_INSTALL_DIR");
}

TEST(DirutilsMkdir, CreatesParentsAndAcceptsAnExistingDirectory) {
    TempDir tmp;
    std::string deep = tmp / "var/base/originLog";
    EXPECT_EQ(dirutils_mkdir(deep.c_str(), 0755), 0);
    EXPECT_TRUE(std::filesystem::is_directory(deep));
    EXPECT_EQ(dirutils_mkdir(deep.c_str(), 0755), 0) << "a second run of the agent must succeed";
    EXPECT_EQ(dirutils_mkdir((deep + "/").c_str(), 0755), 0);
    std::string dotted = tmp / "var/base/../model";
    EXPECT_EQ(dirutils_mkdir(dotted.c_str(), 0755), 0);
    EXPECT_TRUE(std::filesystem::is_directory(tmp / "var/model"));
}

TEST(DirutilsMkdir, FailsWhenAFileIsInTheWay) {
    TempDir tmp;
    writeFile(tmp / "file", "x");
    EXPECT_EQ(dirutils_mkdir((tmp / "file").c_str(), 0755), -1);
    EXPECT_EQ(dirutils_mkdir((tmp / "file/below").c_str(), 0755), -1);
    EXPECT_EQ(dirutils_mkdir(nullptr, 0755), -1);
    EXPECT_EQ(dirutils_mkdir("", 0755), -1);
}

}  // namespace
