#include "sql_skeleton.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace baseeng {

namespace {

// Bytes the scan stops at: what it collapses, and what opens a part of the
// statement where collapsing would change the fold (comments, quoted names,
// other quoting).
enum : unsigned char { kDigitBit = 1, kBlankBit = 2, kStopBit = 4, kWordBit = 8 };

struct SkeletonBytes {
    unsigned char of[256] = {};
    constexpr SkeletonBytes() {
        for (int c = '0'; c <= '9'; ++c) of[c] = kDigitBit | kWordBit | kStopBit;
        // A space stops the scan only before another blank (plainRun); the other blanks always.
        for (int c : {' ', '\t', '\n', '\r', '\f', '\v'}) of[c] = kBlankBit | (c == ' ' ? 0 : kStopBit);
        // What continues a word, a parameter or a variable: a digit after one
        // of these belongs to a name, and names are kept.
        for (int c = 'a'; c <= 'z'; ++c) of[c] = kWordBit;
        for (int c = 'A'; c <= 'Z'; ++c) of[c] = kWordBit;
        for (int c = 0x80; c < 0x100; ++c) of[c] = kWordBit | kStopBit;
        for (unsigned char c : {'_', '$', '#', '@'}) of[c] = kWordBit;
        for (unsigned char c : {'\'', '-', '/', '#', '"', '`', '$', '[', '%', '&'}) of[c] |= kStopBit;
        for (int c = 0; c < ' '; ++c) of[c] |= kStopBit;
    }
};
constexpr SkeletonBytes kBytes;

unsigned bitsOf(char c) { return kBytes.of[static_cast<unsigned char>(c)]; }

// Offset of the first byte in at[0, 16) the scan must stop at, or 16. A
// space stops it only before another blank; at[16] must be readable.
inline unsigned plainRun(const char* at) {
#if defined(__SSE2__)
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
    auto equal = [&](char c) { return _mm_cmpeq_epi8(bytes, _mm_set1_epi8(c)); };
    // Signed compares: bytes from 0x80 up are negative.
    auto within = [&](char low, char high) {
        return _mm_and_si128(_mm_cmpgt_epi8(bytes, _mm_set1_epi8(static_cast<char>(low - 1))),
                             _mm_cmplt_epi8(bytes, _mm_set1_epi8(static_cast<char>(high + 1))));
    };
    // '/' and the digits; '"' to '\'' (with '%' and '&', which only cost a stop);
    // controls and bytes from 0x80 up, below ' ' when signed.
    __m128i stop = _mm_or_si128(within('/', '9'), within('"', '\''));
    stop = _mm_or_si128(stop, _mm_cmplt_epi8(bytes, _mm_set1_epi8(' ')));
    stop = _mm_or_si128(stop, _mm_or_si128(equal('-'), _mm_or_si128(equal('`'), equal('['))));
    // A space followed by a blank: the bytes one further on, at[16] included.
    const __m128i next = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at + 1));
    const __m128i blankNext = _mm_or_si128(
        _mm_cmpeq_epi8(next, _mm_set1_epi8(' ')),
        _mm_and_si128(_mm_cmpgt_epi8(next, _mm_set1_epi8('\t' - 1)), _mm_cmplt_epi8(next, _mm_set1_epi8('\r' + 1))));
    stop = _mm_or_si128(stop, _mm_and_si128(equal(' '), blankNext));
    const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(stop));
    return mask == 0 ? 16u : static_cast<unsigned>(__builtin_ctz(mask));
#else
    for (unsigned i = 0; i < 16; ++i) {
        if ((bitsOf(at[i]) & kStopBit) || (at[i] == ' ' && (bitsOf(at[i + 1]) & kBlankBit))) {
            return i;
        }
    }
    return 16;
#endif
}

}  // namespace

bool writeSqlSkeleton(char* const out, const std::string& statement, SqlDialect dialect, std::size_t& size) {
    if (dialect == SqlDialect::Oracle) {
        return false;  // q'x...x' may end on a digit
    }
    const char* const text = statement.c_str();  // text[size] is '\0': a look one byte ahead needs no bound
    const char* const end = text + statement.size();
    const bool mysql = dialect == SqlDialect::MySql;
    const char* at = text;
    // Leading comments (annotations a driver or framework puts first) are dropped.
    for (;;) {
        while (at < end && (bitsOf(*at) & kBlankBit)) {
            ++at;
        }
        if (end - at < 2 || at[0] != '/' || at[1] != '*' || (mysql && at[2] == '!')) {
            break;
        }
        const char* close = at + 2;
        while (close + 1 < end && !(close[0] == '*' && close[1] == '/')) {
            ++close;
        }
        if (close + 1 >= end) {
            return false;  // unclosed: the whole statement is a comment
        }
        at = close + 2;
    }

    char* o = out;  // never ahead of at, and a block's slack behind the room
    // Cleared for the rest of the statement where what follows may be a
    // comment (blanks: a line comment ends at a line break) or may hold a
    // quote that opens no string.
    bool blanks = true;
    bool strings = true;
    while (at < end) {
        if (end - at >= 16) {
            const unsigned plain = plainRun(at);  // at[16] is within the text or its terminator
            std::memcpy(o, at, 16);
            o += plain;
            at += plain;
            if (plain == 16) {
                continue;
            }
        } else if (!(bitsOf(*at) & kStopBit) && !(*at == ' ' && (bitsOf(at[1]) & kBlankBit))) {
            *o++ = *at++;
            continue;
        }
        const char c = *at;
        const unsigned bits = bitsOf(c);
        if (bits & kDigitBit) {
            // A number's digits, or digits in a string or a comment: the fold never reads them.
            if (at > text && (bitsOf(at[-1]) & kWordBit)) {
                *o++ = *at++;  // in a name
                continue;
            }
            *o++ = '0';
            do {
                ++at;
            } while (bitsOf(*at) & kDigitBit);  // the terminator is no digit
            continue;
        }
        if ((bits & kBlankBit) && blanks) {
            *o++ = ' ';
            do {
                ++at;
            } while (bitsOf(*at) & kBlankBit);
            continue;
        }
        const char next = at[1];
        if (c == '\'' && strings) {
            // A string's end is certain when nothing in it is escaped. A
            // doubled quote makes two strings here and one in the fold: both
            // end at the same quote.
            // Strings are short: a loop costs less than a call.
            const char* close = at + 1;
            while (close < end && *close != '\'' && *close != '\\') {
                ++close;
            }
            if (close < end && *close == '\'') {
                *o++ = '\'';
                *o++ = '\'';
                at = close + 1;
                continue;
            }
            strings = false;
        } else if ((c == '-' && next == '-') || (c == '#' && mysql)) {
            blanks = strings = false;
        } else if ((c == '/' && next == '*') || (c == '"' && mysql) || (c == '$' && dialect == SqlDialect::Postgres)) {
            strings = false;
        } else if (c == '`' || c == '"' || (c == '[' && dialect == SqlDialect::SqlServer)) {
            // A quoted name is kept verbatim by the fold: the rest is kept as it is.
            const std::size_t rest = static_cast<std::size_t>(end - at);
            std::memcpy(o, at, rest);
            o += rest;
            break;
        }
        *o++ = *at++;
    }
    size = static_cast<std::size_t>(o - out);
    return true;
}

}  // namespace baseeng
