#include "normalise_path.h"

#include <cstring>

#include "feature_memo.h"
#include "variable_runs.h"

namespace baseeng {

namespace {

// Memo tag of a folded directory; its text carries a last byte '1' when
// names below it are in a temporary place.
const std::uint64_t kDirectoryTag = 0xd1;

// Folds the segments of a directory text that ends in '/'; whether what
// follows it is in a temporary place.
bool appendDirectories(std::string& out, const char* path, std::size_t size) {
    bool temporaryPlace = false;
    std::size_t start = 0;
    while (start < size) {
        const char* slash = static_cast<const char*>(std::memchr(path + start, '/', size - start));
        std::size_t end = static_cast<std::size_t>(slash - path);
        appendFoldedSegment(out, path + start, end - start, temporaryPlace);
        out.push_back('/');
        // Below a temporary directory the names are random: fold them harder.
        temporaryPlace = temporaryPlace || isTemporaryDirectory(path + start, end - start);
        start = end + 1;
    }
    return temporaryPlace;
}

}  // namespace

void appendNormalisedPath(std::string& out, const char* path, std::size_t size, FeatureMemo* memo) {
    const char* lastSlash = size == 0 ? nullptr : static_cast<const char*>(memrchr(path, '/', size));
    if (lastSlash == nullptr) {
        appendFoldedSegment(out, path, size, false);
        return;
    }
    std::size_t directorySize = static_cast<std::size_t>(lastSlash - path) + 1;
    bool temporaryPlace;
    if (memo == nullptr) {
        temporaryPlace = appendDirectories(out, path, directorySize);
    } else {
        FeatureMemo::Key key = FeatureMemo::keyOf(path, directorySize, kDirectoryTag);
        if (const std::string* known = memo->find(key)) {
            out.append(known->data(), known->size() - 1);
            temporaryPlace = known->back() == '1';
        } else {
            std::size_t start = out.size();
            temporaryPlace = appendDirectories(out, path, directorySize);
            out.push_back(temporaryPlace ? '1' : '0');
            memo->remember(key, out.data() + start, out.size() - start);
            out.pop_back();
        }
    }
    appendFoldedSegment(out, lastSlash + 1, size - directorySize, temporaryPlace);
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
