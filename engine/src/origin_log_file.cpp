#include "origin_log_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "file_handles.h"

namespace baseeng {

namespace {

const char kClosing[] = "\n]\n";

bool exists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

bool moveAside(const std::string& dir, const std::string& stem, const std::string& current) {
    for (unsigned n = 1; n < 1000000; ++n) {
        std::string target = dir + "/" + stem + ".origin." + std::to_string(n) + ".json";
        if (!exists(target)) {
            return std::rename(current.c_str(), target.c_str()) == 0;
        }
    }
    return false;
}

bool writeAll(FILE* file, const std::string& text) {
    return std::fwrite(text.data(), 1, text.size(), file) == text.size();
}

// Origin logs hold what applications did: root and the agent's group only.
FILE* createPrivate(const std::string& path) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
    if (fd < 0) {
        return nullptr;
    }
    ::fchmod(fd, 0640);
    FILE* file = ::fdopen(fd, "wb");
    if (!file) {
        ::close(fd);
    }
    return file;
}

int startFile(const std::string& path, const std::string& element) {
    FileHandle file(createPrivate(path));
    if (!file || !writeAll(file.get(), "[\n" + element + kClosing)) {
        return -1;
    }
    return std::fclose(file.release()) == 0 ? 0 : -1;
}

}  // namespace

int appendOriginLog(const std::string& dir, const std::string& stem, const std::string& element, std::size_t maxBytes) {
    std::string path = dir + "/" + stem + ".origin.json";
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
        return errno == ENOENT ? startFile(path, element) : -1;
    }
    if (info.st_size == 0) {
        return startFile(path, element);
    }
    if (static_cast<unsigned long long>(info.st_size) >= maxBytes) {
        return moveAside(dir, stem, path) ? startFile(path, element) : -1;
    }

    FileHandle file(std::fopen(path.c_str(), "r+b"));
    if (!file) {
        return -1;
    }
    const long closingLength = static_cast<long>(sizeof kClosing - 1);
    char tail[sizeof kClosing] = {0};
    bool closed = info.st_size >= closingLength && std::fseek(file.get(), -closingLength, SEEK_END) == 0 &&
                  std::fread(tail, 1, closingLength, file.get()) == static_cast<std::size_t>(closingLength) &&
                  std::memcmp(tail, kClosing, closingLength) == 0;
    if (!closed) {
        // Not ours, or cut short: keep it for whoever reads it, begin anew.
        file.reset();
        return moveAside(dir, stem, path) ? startFile(path, element) : -1;
    }
    if (std::fseek(file.get(), -closingLength, SEEK_END) != 0 || !writeAll(file.get(), "\n,\n" + element + kClosing)) {
        return -1;
    }
    return std::fclose(file.release()) == 0 ? 0 : -1;
}

}  // namespace baseeng
