#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "dirwalk.h"
#include "temp_dir.h"

namespace {

struct WalkDestroy {
    void operator()(void* walk) const { dirwalk_destroy(walk); }
};
using Walk = std::unique_ptr<void, WalkDestroy>;

using Listing = std::vector<std::pair<std::string, int>>;

// Every entry with its flag, paths relative to root when they start with it.
Listing walkAll(const std::string& root, int recursive, int withDirs) {
    Walk walk(dirwalk_create(root.c_str(), recursive, withDirs));
    EXPECT_TRUE(walk) << root;
    Listing out;
    if (!walk) return out;
    int isDir = -1;
    while (const char* path = dirwalk_read(walk.get(), &isDir)) {
        std::string p(path);
        if (p.compare(0, root.size(), root) == 0) p = p.substr(root.size());
        out.emplace_back(p, isDir);
        isDir = -1;
    }
    EXPECT_EQ(dirwalk_read(walk.get(), &isDir), nullptr) << "the end stays the end";
    return out;
}

class DirwalkTree : public testing::Test {
protected:
    void SetUp() override {
        namespace fs = std::filesystem;
        // Created out of order, so that order in the listing comes from sorting.
        writeFile(m_tmp / "d.txt", "");
        fs::create_directories(m_tmp / "c/sub");
        writeFile(m_tmp / "c/z.txt", "");
        writeFile(m_tmp / "b.txt", "");
        writeFile(m_tmp / "c/sub/y", "");
        writeFile(m_tmp / "a.txt", "");
        fs::create_directory_symlink(m_tmp / "c", m_tmp / "link");
        fs::create_directory(m_tmp / "empty");
    }
    std::string root() const { return m_tmp.path() + "/"; }
    TempDir m_tmp;
};

TEST_F(DirwalkTree, ListsInNameOrderByFlags) {
    const struct {
        int recursive;
        int withDirs;
        Listing expected;
    } cases[] = {
        {0, 1, {{"a.txt", 0}, {"b.txt", 0}, {"c", 1}, {"d.txt", 0}, {"empty", 1}, {"link", 0}}},
        {0, 0, {{"a.txt", 0}, {"b.txt", 0}, {"d.txt", 0}, {"link", 0}}},
        {1,
         1,
         {{"a.txt", 0},
          {"b.txt", 0},
          {"c", 1},
          {"c/sub", 1},
          {"c/sub/y", 0},
          {"c/z.txt", 0},
          {"d.txt", 0},
          {"empty", 1},
          {"link", 0}}},
        {1, 0, {{"a.txt", 0}, {"b.txt", 0}, {"c/sub/y", 0}, {"c/z.txt", 0}, {"d.txt", 0}, {"link", 0}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("recursive " + std::to_string(c.recursive) + " with_dirs " + std::to_string(c.withDirs));
        EXPECT_EQ(walkAll(root(), c.recursive, c.withDirs), c.expected);
    }
}

TEST_F(DirwalkTree, PathsJoinWithOneSlashWithOrWithoutATrailingOne) {
    Walk walk(dirwalk_create(m_tmp.path().c_str(), 0, 1));
    ASSERT_TRUE(walk);
    int isDir = 0;
    const char* first = dirwalk_read(walk.get(), &isDir);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(std::string(first), m_tmp / "a.txt");
}

TEST_F(DirwalkTree, WhatIsNotAnOpenableDirectoryGivesNull) {
    EXPECT_EQ(dirwalk_create((m_tmp / "missing").c_str(), 0, 1), nullptr);
    EXPECT_EQ(dirwalk_create((m_tmp / "a.txt").c_str(), 0, 1), nullptr);
    EXPECT_EQ(dirwalk_create(nullptr, 0, 1), nullptr);
    EXPECT_EQ(dirwalk_read(nullptr, nullptr), nullptr);
    EXPECT_TRUE(walkAll(m_tmp / "empty", 1, 1).empty());
}

TEST(DirwalkProc, OwnProcessIsADirectoryAndSelfIsALink) {
    Walk walk(dirwalk_create("/proc/", 0, 1));
    ASSERT_TRUE(walk);
    std::string own = "/proc/" + std::to_string(getpid());
    int ownFlag = -1;
    int selfFlag = -1;
    int entries = 0;
    std::string previous;
    int isDir = 0;
    while (const char* path = dirwalk_read(walk.get(), &isDir)) {
        ++entries;
        EXPECT_LT(previous, std::string(path));
        previous = path;
        if (own == path) ownFlag = isDir;
        if (std::string("/proc/self") == path) selfFlag = isDir;
    }
    EXPECT_GT(entries, 10);
    EXPECT_EQ(ownFlag, 1);
    EXPECT_EQ(selfFlag, 0);
}

}  // namespace
