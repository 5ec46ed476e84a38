// Directory walker: each directory is read whole and sorted by name, then
// handed out entry by entry; subdirectories are walked depth first.
#include "dirwalk.h"

#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace {

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

struct WalkEntry {
    std::string name;
    bool isDir;
};

struct WalkFrame {
    std::string prefix;  // the directory's path ending in '/'
    std::vector<WalkEntry> entries;
    size_t next = 0;
};

struct DirWalk {
    std::vector<WalkFrame> stack;
    bool recursive = false;
    bool withDirs = false;
    std::string current;
};

// Takes the type from the directory entry; only file systems that don't
// report it cost a stat, and never more than one per entry.
bool entryIsDir(DIR* dir, const dirent* entry) {
    if (entry->d_type != DT_UNKNOWN) return entry->d_type == DT_DIR;
    struct stat st {};
    return fstatat(dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
}

bool readFrame(const std::string& path, WalkFrame& frame) {
    DirPtr dir(opendir(path.c_str()));
    if (!dir) return false;
    frame.prefix = path;
    if (frame.prefix.empty() || frame.prefix.back() != '/') frame.prefix += '/';
    while (const dirent* entry = readdir(dir.get())) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        frame.entries.push_back(WalkEntry{entry->d_name, entryIsDir(dir.get(), entry)});
    }
    std::sort(frame.entries.begin(), frame.entries.end(),
              [](const WalkEntry& a, const WalkEntry& b) { return a.name < b.name; });
    return true;
}

DirWalk* from(dirwalk_t walk) { return static_cast<DirWalk*>(walk); }

}  // namespace

extern "C" dirwalk_t dirwalk_create(const char* path, int recursive, int with_dirs) {
    if (!path || !*path) return nullptr;
    auto walk = std::make_unique<DirWalk>();
    walk->recursive = recursive != 0;
    walk->withDirs = with_dirs != 0;
    WalkFrame root;
    if (!readFrame(path, root)) return nullptr;
    walk->stack.push_back(std::move(root));
    return walk.release();
}

extern "C" const char* dirwalk_read(dirwalk_t handle, int* is_dir) {
    DirWalk* walk = from(handle);
    if (!walk) return nullptr;
    while (!walk->stack.empty()) {
        WalkFrame& top = walk->stack.back();
        if (top.next >= top.entries.size()) {
            walk->stack.pop_back();
            continue;
        }
        const WalkEntry& entry = top.entries[top.next++];
        walk->current = top.prefix + entry.name;
        bool isDir = entry.isDir;
        if (isDir && walk->recursive) {
            // A subdirectory that can't be opened is passed over, not fatal.
            WalkFrame child;
            if (readFrame(walk->current, child)) walk->stack.push_back(std::move(child));
        }
        if (isDir && !walk->withDirs) continue;
        if (is_dir) *is_dir = isDir ? 1 : 0;
        return walk->current.c_str();
    }
    return nullptr;
}

extern "C" void dirwalk_destroy(dirwalk_t walk) { std::unique_ptr<DirWalk> owned(from(walk)); }
