// Owning handles for C file and directory streams.
#ifndef BASEENG_FILE_HANDLES_H
#define BASEENG_FILE_HANDLES_H

#include <cstdio>
#include <memory>
#include <string>

#include <dirent.h>

namespace baseeng {

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using FileHandle = std::unique_ptr<FILE, FileCloser>;
using DirHandle = std::unique_ptr<DIR, DirCloser>;

// Whole content of a file; false when it can't be read.
bool readWholeFile(const std::string& path, std::string& content);

}  // namespace baseeng

#endif
