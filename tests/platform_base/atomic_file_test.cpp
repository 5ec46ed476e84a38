#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "atomic_file.h"
#include "ini_file.h"
#include "temp_dir.h"

namespace {

mode_t modeOf(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

// The umask of the process must not widen or narrow what the caller asked for.
class UmaskScope {
public:
    explicit UmaskScope(mode_t mask) : m_old(::umask(mask)) {}
    ~UmaskScope() { ::umask(m_old); }

private:
    mode_t m_old;
};

TEST(AtomicFile, ReplacesWholeWithTheAskedModeAndNoLeftover) {
    TempDir tmp;
    const std::string path = tmp / "state";
    writeFile(path, "old content that is longer than the new one");
    ::chmod(path.c_str(), 0644);
    // A temporary file left by a crash is replaced, and takes the new mode.
    writeFile(path + ".tmp", "torn");
    ::chmod((path + ".tmp").c_str(), 0666);
    UmaskScope umask(0);
    ASSERT_EQ(file_write_atomic(path.c_str(), "new", 3, 0640), 0);
    EXPECT_EQ(readFile(path), "new");
    EXPECT_EQ(modeOf(path), 0640u);
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));

    ASSERT_EQ(file_write_atomic(path.c_str(), "", 0, 0600), 0) << "an empty file is a valid content";
    EXPECT_EQ(readFile(path), "");
    EXPECT_EQ(modeOf(path), 0600u);
}

TEST(AtomicFile, FailuresKeepTheOldFileAndSayWhy) {
    TempDir tmp;
    const std::string path = tmp / "kept";
    writeFile(path, "precious");
    struct Case {
        const char* what;
        std::string path;
        const void* data;
        size_t size;
        int err;
    };
    const Case cases[] = {
        {"null path", "", "x", 1, EINVAL},
        {"null data with a size", path, nullptr, 4, EINVAL},
        {"missing directory", tmp / "no/such/file", "x", 1, ENOENT},
        {"target is a directory", tmp.path(), "x", 1, 0},
    };
    for (const Case& c : cases) {
        errno = 0;
        int rc = file_write_atomic(c.path.empty() ? nullptr : c.path.c_str(), c.data, c.size, 0640);
        int err = errno;
        EXPECT_EQ(rc, -1) << c.what;
        if (c.err) {
            EXPECT_EQ(err, c.err) << c.what;
        }
        EXPECT_FALSE(std::filesystem::exists(c.path + ".tmp")) << c.what;
    }
    EXPECT_EQ(readFile(path), "precious");

    // A link planted at the temporary name is not written through.
    const std::string victim = tmp / "victim";
    writeFile(victim, "untouched");
    ASSERT_EQ(::symlink(victim.c_str(), (path + ".tmp").c_str()), 0);
    EXPECT_EQ(file_write_atomic(path.c_str(), "x", 1, 0640), -1);
    EXPECT_EQ(readFile(victim), "untouched");
    EXPECT_EQ(readFile(path), "precious");
}

TEST(AtomicFile, CopyIsWholeOrNothing) {
    TempDir tmp;
    UmaskScope umask(0);
    const std::string src = tmp / "origin.log";
    const std::string big(200000, 'x');  // several read buffers
    writeFile(src, big);
    const std::string dst = tmp / "copy";
    writeFile(dst, "old");
    unsigned long long copied = 1;
    ASSERT_EQ(file_copy_atomic(src.c_str(), dst.c_str(), 0640, &copied), 0);
    EXPECT_EQ(readFile(dst), big);
    EXPECT_EQ(copied, big.size());
    EXPECT_EQ(modeOf(dst), 0640u);
    EXPECT_FALSE(std::filesystem::exists(dst + ".tmp"));

    writeFile(dst, "precious");
    struct Case {
        const char* what;
        std::string src;
        std::string dst;
        int err;
    };
    const Case cases[] = {
        {"missing source", tmp / "none", dst, ENOENT},
        {"source is a directory", tmp.path(), dst, EINVAL},
        {"missing target directory", src, tmp / "no/such/file", ENOENT},
    };
    for (const Case& c : cases) {
        copied = 1;
        errno = 0;
        EXPECT_EQ(file_copy_atomic(c.src.c_str(), c.dst.c_str(), 0640, &copied), -1) << c.what;
        EXPECT_EQ(errno, c.err) << c.what;
        EXPECT_EQ(copied, 0u) << c.what;
        EXPECT_FALSE(std::filesystem::exists(c.dst + ".tmp")) << c.what;
    }
    EXPECT_EQ(readFile(dst), "precious");
}

TEST(AtomicFile, IniSaveIsPrivateAndAtomic) {
    TempDir tmp;
    UmaskScope umask(0);
    const std::string path = tmp / "base_model.cfg";
    std::unique_ptr<void, void (*)(void*)> ini(ini_file_load(nullptr), ini_file_free);
    ASSERT_EQ(ini_file_set(ini.get(), "baseengine", "count", "1"), 0);
    ASSERT_EQ(ini_file_save(ini.get(), path.c_str(), 1), 0);
    EXPECT_EQ(modeOf(path), 0640u);
    EXPECT_EQ(ini_file_save(ini.get(), (tmp / "gone/x.cfg").c_str(), 1), -1);
}

TEST(AtomicFile, SyncsTheParentOfAnyPath) {
    TempDir tmp;
    EXPECT_EQ(file_sync_parent_dir((tmp / "whatever").c_str()), 0);
    EXPECT_EQ(file_sync_parent_dir("relative-name"), 0) << "the working directory holds it";
    EXPECT_EQ(file_sync_parent_dir((tmp / "no/such").c_str()), -1);
}

}  // namespace
