#include <gtest/gtest.h>

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

// Every entry with its is_dir flag, the root and its one slash taken off.
Listing walkAll(const std::string& root, const std::string& given, int recursive, int withDirs) {
    Walk walk(dirwalk_create(given.c_str(), recursive, withDirs));
    EXPECT_TRUE(walk) << given;
    Listing out;
    int isDir = -1;
    while (const char* path = walk ? dirwalk_read(walk.get(), &isDir) : nullptr) {
        std::string p(path);
        out.emplace_back(p.compare(0, root.size() + 1, root + "/") == 0 ? p.substr(root.size() + 1) : p, isDir);
    }
    return out;
}

TEST(Dirwalk, ListsInNameOrderByFlagsAndDoesNotFollowLinks) {
    namespace fs = std::filesystem;
    TempDir tmp;
    // Created out of order, so that order in the listing comes from sorting.
    writeFile(tmp / "d.txt", "");
    fs::create_directories(tmp / "c/sub");
    writeFile(tmp / "c/z.txt", "");
    writeFile(tmp / "b.txt", "");
    writeFile(tmp / "c/sub/y", "");
    fs::create_directory_symlink(tmp / "c", tmp / "link");
    fs::create_directory(tmp / "empty");
    const struct {
        int recursive;
        int withDirs;
        Listing expected;
    } cases[] = {
        {0, 1, {{"b.txt", 0}, {"c", 1}, {"d.txt", 0}, {"empty", 1}, {"link", 0}}},
        {1,
         1,
         {{"b.txt", 0},
          {"c", 1},
          {"c/sub", 1},
          {"c/sub/y", 0},
          {"c/z.txt", 0},
          {"d.txt", 0},
          {"empty", 1},
          {"link", 0}}},
        {1, 0, {{"b.txt", 0}, {"c/sub/y", 0}, {"c/z.txt", 0}, {"d.txt", 0}, {"link", 0}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("recursive " + std::to_string(c.recursive) + " with_dirs " + std::to_string(c.withDirs));
        EXPECT_EQ(walkAll(tmp.path(), tmp.path() + (c.recursive ? "/" : ""), c.recursive, c.withDirs), c.expected);
    }
    EXPECT_TRUE(walkAll(tmp / "empty", tmp / "empty", 1, 1).empty());
    EXPECT_EQ(dirwalk_create((tmp / "b.txt").c_str(), 0, 1), nullptr);
}

}  // namespace
