// The parts of a name or word that change from one request to the next:
// numbers, hexadecimal, UUIDs, timestamps, random identifiers and the random
// tails of temporary names. Paths and command arguments share these rules.
#ifndef BASEENG_VARIABLE_RUNS_H
#define BASEENG_VARIABLE_RUNS_H

#include <cstddef>
#include <string>

namespace baseeng {

inline bool isDigit(char c) { return c >= '0' && c <= '9'; }
inline bool isLower(char c) { return c >= 'a' && c <= 'z'; }
inline bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
namespace detail {
struct AlnumBytes {
    bool of[256] = {};
    constexpr AlnumBytes() {
        for (int c = '0'; c <= '9'; ++c) of[c] = true;
        for (int c = 'a'; c <= 'z'; ++c) of[c] = true;
        for (int c = 'A'; c <= 'Z'; ++c) of[c] = true;
    }
};
inline constexpr AlnumBytes kAlnumBytes;
}  // namespace detail

// One load instead of three ranges: it runs for every byte of every path.
inline bool isAlnum(char c) { return detail::kAlnumBytes.of[static_cast<unsigned char>(c)]; }
inline char lowered(char c) { return isUpper(c) ? static_cast<char>(c + ('a' - 'A')) : c; }

// What in a segment can make it vary: its digits, capitals and underscores.
enum : unsigned { kMarkDigit = 1, kMarkUpper = 2, kMarkUnderscore = 4 };
namespace detail {
struct MarkBytes {
    unsigned char of[256] = {};
    constexpr MarkBytes() {
        for (int c = '0'; c <= '9'; ++c) of[c] = kMarkDigit;
        for (int c = 'A'; c <= 'Z'; ++c) of[c] = kMarkUpper;
        of[static_cast<unsigned char>('_')] = kMarkUnderscore;
    }
};
inline constexpr MarkBytes kMarkBytes;
}  // namespace detail
inline unsigned markOf(char c) { return detail::kMarkBytes.of[static_cast<unsigned char>(c)]; }
inline unsigned marksOf(const char* text, std::size_t size) {
    unsigned marks = 0;
    for (std::size_t i = 0; i < size; ++i) {
        marks |= markOf(text[i]);
    }
    return marks;
}

// A folded text is never more than three times as long as its raw text
// ("<n>" for a lone digit grows the most); and a byte more, for the memo's
// flags behind a folded directory.
inline std::size_t foldedBound(std::size_t size) { return 3 * size + 1; }

// Writes one path segment or word with its variable runs folded to
// placeholders at out, which has room for foldedBound(size) bytes, and
// returns the end. In a temporary directory every random-looking run is
// folded. marks: exactly marksOf(text, size). placeholder is set when one
// was written.
char* foldSegment(char* out, const char* text, std::size_t size, bool temporaryPlace, unsigned marks,
                  bool& placeholder);
void appendFoldedSegment(std::string& out, const char* text, std::size_t size, bool temporaryPlace);

// A directory segment whose children are temporary: tmp, temp, shm.
bool isTemporaryDirectory(const char* text, std::size_t size);

}  // namespace baseeng

#endif
