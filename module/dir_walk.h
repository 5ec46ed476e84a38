// Owns a directory walker (dirwalk.h) for its scope.
#ifndef WL_DIR_WALK_H
#define WL_DIR_WALK_H

#include <memory>

#include "dirwalk.h"

struct DirWalkDeleter {
    void operator()(void* walk) const { dirwalk_destroy(walk); }
};
// Null when the directory could not be opened.
using DirWalk = std::unique_ptr<void, DirWalkDeleter>;

inline DirWalk open_dir_walk(const char* path) { return DirWalk(dirwalk_create(path, 0, 1)); }

#endif
