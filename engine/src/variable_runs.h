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

// Appends one path segment or word with its variable runs folded to
// placeholders. In a temporary directory every random-looking run is folded.
void appendFoldedSegment(std::string& out, const char* text, std::size_t size, bool temporaryPlace);

// A directory segment whose children are temporary: tmp, temp, shm.
bool isTemporaryDirectory(const char* text, std::size_t size);

}  // namespace baseeng

#endif
