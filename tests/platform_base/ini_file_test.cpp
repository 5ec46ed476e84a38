#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ini_file.h"
#include "temp_dir.h"

namespace {

struct IniFree {
    void operator()(void* ini) const { ini_file_free(ini); }
};
using Ini = std::unique_ptr<void, IniFree>;

Ini loadText(const TempDir& tmp, const std::string& text) {
    writeFile(tmp / "in.ini", text);
    return Ini(ini_file_load((tmp / "in.ini").c_str()));
}

TEST(IniFile, SavedFileKeepsOrderEmptyValuesAndReadsBack) {
    TempDir tmp;
    Ini ini(ini_file_load(nullptr));
    ASSERT_TRUE(ini);
    EXPECT_EQ(ini_file_get(ini.get(), "head", "count"), nullptr);
    ASSERT_EQ(ini_file_set(ini.get(), "head", "count", "2"), 0);
    ASSERT_EQ(ini_file_set(ini.get(), "model_b", "path", "/usr/sbin/nginx"), 0);
    ASSERT_EQ(ini_file_set(ini.get(), "model_b", "ports", ""), 0);
    ASSERT_EQ(ini_file_set(ini.get(), "model_a", "path", "/usr/bin/redis"), 0);
    ASSERT_EQ(ini_file_set(ini.get(), "model_a", "ports", "6379,16379"), 0);
    // Replacing keeps the key where it was.
    ASSERT_EQ(ini_file_set(ini.get(), "head", "count", "3"), 0);
    std::string path = tmp / "base_model.cfg";
    ASSERT_EQ(ini_file_save(ini.get(), path.c_str(), 1), 0);

    EXPECT_EQ(readFile(path),
              "[head]\ncount=3\n\n"
              "[model_b]\npath=/usr/sbin/nginx\nports=\n\n"
              "[model_a]\npath=/usr/bin/redis\nports=6379,16379\n");

    Ini back(ini_file_load(path.c_str()));
    ASSERT_TRUE(back);
    const struct {
        const char* section;
        const char* key;
        const char* value;  // null: absent
    } cases[] = {
        {"head", "count", "3"},
        {"model_b", "ports", ""},
        {"model_b", "path", "/usr/sbin/nginx"},
        {"model_a", "ports", "6379,16379"},
        {"model_a", "missing", nullptr},
        {"missing", "count", nullptr},
        {"HEAD", "count", nullptr},
    };
    for (const auto& c : cases) {
        const char* got = ini_file_get(back.get(), c.section, c.key);
        if (c.value) {
            ASSERT_NE(got, nullptr) << c.section << "." << c.key;
            EXPECT_STREQ(got, c.value);
        } else {
            EXPECT_EQ(got, nullptr) << c.section << "." << c.key;
        }
    }
    // A second save of what was loaded gives the same text.
    std::string again = tmp / "again.cfg";
    ASSERT_EQ(ini_file_save(back.get(), again.c_str(), 1), 0);
    EXPECT_EQ(readFile(again), readFile(path));
}

TEST(IniFile, ParsesCommentsBlanksAndOddLines) {
    TempDir tmp;
    Ini ini = loadText(tmp,
                       "top = level\r\n"
                       "; a comment = not a key\n"
                       "# another=comment\n"
                       "\n"
                       "  [ spaced ]  \n"
                       "  key one   =   value with  inner  blanks  \r\n"
                       "novalue\n"
                       "empty=\n"
                       "eq=a=b\n"
                       "[broken\n"
                       "after_broken=still spaced\n"
                       "[spaced]\n"
                       "key one=replaced later\n"
                       "hash=#not a comment\n");
    ASSERT_TRUE(ini);
    const struct {
        const char* section;
        const char* key;
        const char* value;
    } cases[] = {
        {"", "top", "level"},
        {"spaced", "key one", "replaced later"},
        {"spaced", "empty", ""},
        {"spaced", "eq", "a=b"},
        {"spaced", "after_broken", "still spaced"},
        {"spaced", "hash", "#not a comment"},
        {"spaced", "novalue", nullptr},
        {"", "; a comment", nullptr},
        {"", "# another", nullptr},
        {"broken", "after_broken", nullptr},
    };
    for (const auto& c : cases) {
        const char* got = ini_file_get(ini.get(), c.section, c.key);
        if (c.value) {
            ASSERT_NE(got, nullptr) << "[" << c.section << "] " << c.key;
            EXPECT_STREQ(got, c.value);
        } else {
            EXPECT_EQ(got, nullptr) << "[" << c.section << "] " << c.key;
        }
    }
}

TEST(IniFile, KeysWithoutASectionAreSavedFirst) {
    TempDir tmp;
    Ini ini(ini_file_load(nullptr));
    ini_file_set(ini.get(), "s", "k", "v");
    ini_file_set(ini.get(), "", "loose", "1");
    std::string path = tmp / "out.ini";
    ASSERT_EQ(ini_file_save(ini.get(), path.c_str(), 1), 0);
    EXPECT_EQ(readFile(path), "loose=1\n\n[s]\nk=v\n");
    Ini back(ini_file_load(path.c_str()));
    EXPECT_STREQ(ini_file_get(back.get(), "", "loose"), "1");
    EXPECT_EQ(ini_file_get(back.get(), "s", "loose"), nullptr);
}

TEST(IniFile, WhatCannotBeReadBackIsRefusedAndNothingIsLost) {
    Ini ini(ini_file_load(nullptr));
    ASSERT_EQ(ini_file_set(ini.get(), "s", "k", "kept"), 0);
    const struct {
        const char* section;
        const char* key;
        const char* value;
    } refused[] = {
        {"s", "k", "two\nlines"}, {"s", "a=b", "v"},   {"s", "", "v"},  {"s", ";k", "v"},
        {"s]x", "k", "v"},        {nullptr, "k", "v"}, {"s", nullptr, "v"},
    };
    for (const auto& r : refused) {
        EXPECT_NE(ini_file_set(ini.get(), r.section, r.key, r.value), 0)
            << (r.section ? r.section : "(null)") << " / " << (r.key ? r.key : "(null)");
    }
    EXPECT_STREQ(ini_file_get(ini.get(), "s", "k"), "kept");
    EXPECT_EQ(ini_file_set(nullptr, "s", "k", "v"), -1);
    EXPECT_EQ(ini_file_get(nullptr, "s", "k"), nullptr);
    // A null value is stored as the empty text.
    ASSERT_EQ(ini_file_set(ini.get(), "s", "nullvalue", nullptr), 0);
    EXPECT_STREQ(ini_file_get(ini.get(), "s", "nullvalue"), "");
}

TEST(IniFile, UnreadableFilesGiveNull) {
    TempDir tmp;
    EXPECT_EQ(ini_file_load((tmp / "missing.ini").c_str()), nullptr);
    EXPECT_EQ(ini_file_load(tmp.path().c_str()), nullptr) << "a directory is not an ini file";
    // An empty file is a valid, empty document.
    Ini empty = loadText(tmp, "");
    EXPECT_TRUE(empty);
}

TEST(IniFile, FailedSaveKeepsTheOldFile) {
    TempDir tmp;
    std::string path = tmp / "keep.ini";
    writeFile(path, "[old]\nk=v\n");
    Ini ini(ini_file_load(nullptr));
    ini_file_set(ini.get(), "new", "k", "v");
    EXPECT_NE(ini_file_save(ini.get(), (tmp / "no/such/dir.ini").c_str(), 1), 0);
    EXPECT_NE(ini_file_save(nullptr, path.c_str(), 1), 0);
    EXPECT_EQ(readFile(path), "[old]\nk=v\n");
    ASSERT_EQ(ini_file_save(ini.get(), path.c_str(), 1), 0);
    EXPECT_EQ(readFile(path), "[new]\nk=v\n");
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
}

}  // namespace
