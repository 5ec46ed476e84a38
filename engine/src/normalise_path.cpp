#include "normalise_path.h"

#include <cstring>

#include "feature_memo.h"
#include "variable_runs.h"

namespace baseeng {

namespace {

// Memo tag of a folded directory; its text carries a last byte that tells
// whether names below it are in a temporary place and whether it holds a
// placeholder.
const std::uint64_t kDirectoryTag = 0xd1;
enum : char { kFlagsBase = '0', kTemporaryFlag = 1, kPlaceholderFlag = 2 };

// Folds the segments of a directory text that ends in '/'; whether what
// follows it is in a temporary place.
bool foldDirectories(char*& out, const char* path, std::size_t size, bool& placeholder) {
    bool temporaryPlace = false;
    std::size_t start = 0;
    while (start < size) {
        const char* slash = static_cast<const char*>(std::memchr(path + start, '/', size - start));
        std::size_t end = static_cast<std::size_t>(slash - path);
        out = foldSegment(out, path + start, end - start, temporaryPlace, marksOf(path + start, end - start),
                          placeholder);
        *out++ = '/';
        // Below a temporary directory the names are random: fold them harder.
        temporaryPlace = temporaryPlace || isTemporaryDirectory(path + start, end - start);
        start = end + 1;
    }
    return temporaryPlace;
}

}  // namespace

char* foldPath(char* out, const char* path, std::size_t size, FeatureMemo* memo, bool& placeholder) {
    // The name is scanned from its end for the last slash, its marks gathered on the way.
    std::size_t nameStart = size;
    unsigned nameMarks = 0;
    while (nameStart > 0 && path[nameStart - 1] != '/') {
        nameMarks |= markOf(path[--nameStart]);
    }
    if (nameStart == 0) {
        return foldSegment(out, path, size, false, nameMarks, placeholder);
    }
    bool temporaryPlace;
    if (memo == nullptr) {
        temporaryPlace = foldDirectories(out, path, nameStart, placeholder);
    } else {
        FeatureMemo::Key key = FeatureMemo::keyOf(path, nameStart, kDirectoryTag);
        if (const std::string* known = memo->find(key)) {
            const std::size_t folded = known->size() - 1;
            std::memcpy(out, known->data(), folded);
            out += folded;
            const int flags = known->back() - kFlagsBase;
            temporaryPlace = (flags & kTemporaryFlag) != 0;
            placeholder = placeholder || (flags & kPlaceholderFlag) != 0;
        } else {
            char* const start = out;
            bool directoryPlaceholder = false;
            temporaryPlace = foldDirectories(out, path, nameStart, directoryPlaceholder);
            // The flags ride behind the folded text for the memo, then give way to the name.
            *out = static_cast<char>(kFlagsBase + (temporaryPlace ? kTemporaryFlag : 0) +
                                     (directoryPlaceholder ? kPlaceholderFlag : 0));
            memo->remember(key, start, static_cast<std::size_t>(out - start) + 1);
            placeholder = placeholder || directoryPlaceholder;
        }
    }
    return foldSegment(out, path + nameStart, size - nameStart, temporaryPlace, nameMarks, placeholder);
}

void appendNormalisedPath(std::string& out, const char* path, std::size_t size, FeatureMemo* memo) {
    const std::size_t start = out.size();
    out.resize(start + foldedBound(size));
    bool placeholder = false;
    char* end = foldPath(&out[start], path, size, memo, placeholder);
    out.resize(static_cast<std::size_t>(end - out.data()));
}

std::string normalisePath(const std::string& path) {
    std::string out;
    appendNormalisedPath(out, path.data(), path.size());
    return out;
}

std::string directoryOf(const std::string& path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

}  // namespace baseeng
