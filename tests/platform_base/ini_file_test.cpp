#include <gtest/gtest.h>

#include <errno.h>

#include <filesystem>
#include <memory>
#include <string>

#include "ini_file.h"
#include "temp_dir.h"

namespace {

struct IniFree {
    void operator()(void* ini) const { ini_file_free(ini); }
};
using Ini = std::unique_ptr<void, IniFree>;

std::string valueOf(const Ini& ini, const char* section, const char* key) {
    const char* value = ini_file_get(ini.get(), section, key);
    return value ? value : "<absent>";
}

TEST(IniFile, SavedFileKeepsOrderEmptyValuesAndReadsBack) {
    TempDir tmp;
    Ini ini(ini_file_load(nullptr));
    ASSERT_TRUE(ini);
    const char* sets[][3] = {
        {"head", "count", "2"},   {"model_b", "path", "/usr/sbin/nginx"},
        {"model_b", "ports", ""}, {"model_a", "ports", "6379,16379"},
        {"head", "count", "3"},  // replaced where it stands
        {"", "loose", "1"},      // keys without a section go first
    };
    for (const auto& s : sets) ASSERT_EQ(ini_file_set(ini.get(), s[0], s[1], s[2]), 0) << s[1];
    std::string path = tmp / "base_model.cfg";
    ASSERT_EQ(ini_file_save(ini.get(), path.c_str(), 1), 0);
    const std::string saved =
        "loose=1\n\n[head]\ncount=3\n\n[model_b]\npath=/usr/sbin/nginx\nports=\n\n[model_a]\nports=6379,16379\n";
    EXPECT_EQ(readFile(path), saved);

    Ini back(ini_file_load(path.c_str()));
    ASSERT_TRUE(back);
    EXPECT_EQ(valueOf(back, "model_b", "ports"), "");
    EXPECT_EQ(valueOf(back, "HEAD", "count"), "<absent>");
    ASSERT_EQ(ini_file_save(back.get(), path.c_str(), 1), 0);
    EXPECT_EQ(readFile(path), saved) << "saving what was loaded replaces the file with the same text";
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
}

TEST(IniFile, ParsesCommentsBlanksAndOddLines) {
    TempDir tmp;
    writeFile(tmp / "in.ini",
              "top = level\r\n; a comment = not a key\n# another=comment\n\n"
              "  [ spaced ]  \n  key one   =   value with  inner  blanks  \r\nnovalue\neq=a=b\n"
              "[broken\nafter_broken=still spaced\n[spaced]\nkey one=replaced later\nhash=#not a comment\n"
              "nul=/usr/bin/a \t" +
                  std::string(1, '\0') + "hidden\n[cut" + std::string(1, '\0') + "]\nin_cut=1\n");
    Ini ini(ini_file_load((tmp / "in.ini").c_str()));
    ASSERT_TRUE(ini);
    const char* cases[][3] = {
        {"", "top", "level"},
        {"spaced", "key one", "replaced later"},
        {"spaced", "eq", "a=b"},
        {"spaced", "after_broken", "still spaced"},
        {"spaced", "hash", "#not a comment"},
        {"spaced", "novalue", "<absent>"},
        {"", "; a comment", "<absent>"},
        {"", "# another", "<absent>"},
        // A NUL ends the line: a value read is one that can be saved again.
        {"spaced", "nul", "/usr/bin/a"},
        {"cut", "in_cut", "<absent>"},
        {"spaced", "in_cut", "1"},
    };
    for (const auto& c : cases) EXPECT_EQ(valueOf(ini, c[0], c[1]), c[2]) << c[0] << "." << c[1];
}

TEST(IniFile, BadInputIsRefusedAndLosesNothing) {
    TempDir tmp;
    EXPECT_EQ(ini_file_load((tmp / "missing.ini").c_str()), nullptr);
    EXPECT_EQ(ini_file_load(tmp.path().c_str()), nullptr) << "a directory is not an ini file";
    Ini ini(ini_file_load(nullptr));
    ASSERT_EQ(ini_file_set(ini.get(), "s", "k", "kept"), 0);
    // Each would not read back as it was set: refused, never altered.
    const char* refused[][3] = {
        {"s", "k", "two\nlines"}, {"s", "k", "cr at end\r"}, {"s", "k", " leading"}, {"s", "k", "trailing "},
        {"s", "k", "\ttab"},      {"s", "k", "tab\t"},       {"s", "k", " "},        {"s", "a=b", "v"},
        {"s", "", "v"},           {"s", ";k", "v"},          {"s", "#k", "v"},       {"s", "[k", "v"},
        {"s", " k", "v"},         {"s", "k ", "v"},          {"s", "k\n", "v"},      {"s]x", "k", "v"},
        {" s", "k", "v"},         {"s ", "k", "v"},          {"s\nx", "k", "v"},
    };
    for (const auto& r : refused) {
        errno = 0;
        EXPECT_EQ(ini_file_set(ini.get(), r[0], r[1], r[2]), -1) << r[0] << "." << r[1] << "=" << r[2];
        EXPECT_EQ(errno, EINVAL) << r[0] << "." << r[1] << "=" << r[2];
    }
    EXPECT_EQ(ini_file_set(ini.get(), "s", "k", nullptr), -1);
    EXPECT_EQ(valueOf(ini, "s", "k"), "kept");
    EXPECT_EQ(valueOf(ini, " s", "k"), "<absent>") << "a refused section is not created";

    // What is accepted comes back byte for byte after a save.
    const char* accepted[][3] = {{"s", "inner", "a  b\tc\rd"},
                                 {"s", "eq", "x=y"},
                                 {"s", "semi", ";not a comment"},
                                 {"s", "empty", ""},
                                 {"", "loose", "v"}};
    for (const auto& a : accepted) ASSERT_EQ(ini_file_set(ini.get(), a[0], a[1], a[2]), 0) << a[1];
    const std::string path = tmp / "back.ini";
    ASSERT_EQ(ini_file_save(ini.get(), path.c_str(), 1), 0);
    Ini back(ini_file_load(path.c_str()));
    for (const auto& a : accepted) EXPECT_EQ(valueOf(back, a[0], a[1]), a[2]) << a[1];
}

}  // namespace
