#include "normalise_path.h"

#include "variable_runs.h"

namespace baseeng {

void appendNormalisedPath(std::string& out, const char* path, std::size_t size) {
    bool temporaryPlace = false;
    std::size_t start = 0;
    while (start <= size) {
        std::size_t end = start;
        while (end < size && path[end] != '/') {
            ++end;
        }
        appendFoldedSegment(out, path + start, end - start, temporaryPlace);
        if (end == size) {
            break;
        }
        out.push_back('/');
        // Below a temporary directory the names are random: fold them harder.
        temporaryPlace = temporaryPlace || isTemporaryDirectory(path + start, end - start);
        start = end + 1;
    }
}

std::string normalisePath(const std::string& path) {
    std::string out;
    out.reserve(path.size() + 8);
    appendNormalisedPath(out, path.data(), path.size());
    return out;
}

std::string directoryOf(const std::string& path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

}  // namespace baseeng
