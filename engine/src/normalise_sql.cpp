#include "normalise_sql.h"

#include <cstring>
#include <vector>

#include "inline_vector.h"
#include "variable_runs.h"

namespace baseeng {

namespace {

enum class Kind : unsigned char { None, Value, Keyword, Operator, Open, Close, Comma, Dot, Semicolon };

constexpr unsigned kindBit(Kind kind) { return 1u << static_cast<unsigned>(kind); }
// No space after these, nor before those.
constexpr unsigned kGluedAfter = kindBit(Kind::None) | kindBit(Kind::Open) | kindBit(Kind::Dot);
constexpr unsigned kGluedBefore =
    kindBit(Kind::Close) | kindBit(Kind::Comma) | kindBit(Kind::Dot) | kindBit(Kind::Semicolon);

// A parenthesised group while it is open: whether it holds only placeholders.
struct Group {
    std::size_t open;  // position of its "(" in the output
    bool placeholders;
    bool expectItem;
};

// The open groups; statements rarely nest deeper than the inline part.
using GroupStack = InlineVector<Group, 16>;

enum : unsigned char { kSpaceBit = 1, kWordStartBit = 2, kWordPartBit = 4, kDigitBit = 8 };

struct SqlBytes {
    unsigned char of[256] = {};
    char wordLower[256] = {};  // a byte of a word, lowered; 0 for a byte that ends a word
    constexpr SqlBytes() {
        for (int c : {' ', '\t', '\n', '\r', '\f', '\v'}) of[c] = kSpaceBit;
        for (int c = 0x80; c < 0x100; ++c) of[c] = kWordStartBit | kWordPartBit;
        for (int c = 'a'; c <= 'z'; ++c) of[c] = kWordStartBit | kWordPartBit;
        for (int c = 'A'; c <= 'Z'; ++c) of[c] = kWordStartBit | kWordPartBit;
        of[static_cast<unsigned char>('_')] = kWordStartBit | kWordPartBit;
        for (int c = '0'; c <= '9'; ++c) of[c] = kWordPartBit | kDigitBit;
        of[static_cast<unsigned char>('$')] = of[static_cast<unsigned char>('#')] = kWordPartBit;
        for (int c = 0; c < 256; ++c) {
            if (of[c] & kWordPartBit) {
                wordLower[c] = static_cast<char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
            }
        }
    }
};
constexpr SqlBytes kBytes;

unsigned char bitsOf(char c) { return kBytes.of[static_cast<unsigned char>(c)]; }
bool isSpace(char c) { return bitsOf(c) & kSpaceBit; }
bool isWordStart(char c) { return bitsOf(c) & kWordStartBit; }
bool isWordPart(char c) { return bitsOf(c) & kWordPartBit; }

struct Spelling {
    const char* text;
    std::size_t size;
};
#define SPELLING(text) \
    Spelling { text, sizeof text - 1 }

template <std::size_t N>
bool is(const char* word, const char (&keyword)[N]) {
    return std::memcmp(word, keyword, N - 1) == 0;
}

// What a word means to the folding, besides being a word.
enum class Role { Plain, ExpectsValue, Is, Not, Literal };

// Per first letter, the lengths of the keywords that roleOf knows: most
// words are names, and this tells them at once.
struct KeywordStarts {
    unsigned short lengths[256] = {};
    constexpr KeywordStarts() {
        const char* const keywords[] = {"is",      "or",       "by",       "in",     "on",     "not",    "and",
                                        "set",     "top",      "any",      "all",    "null",   "true",   "then",
                                        "else",    "when",     "case",     "like",   "false",  "where",  "limit",
                                        "select",  "values",   "offset",   "return", "having", "escape", "exists",
                                        "between", "interval", "returning"};
        for (const char* keyword : keywords) {
            unsigned length = 0;
            while (keyword[length] != 0) {
                ++length;
            }
            lengths[static_cast<unsigned char>(keyword[0])] |= static_cast<unsigned short>(1u << length);
        }
    }
};
constexpr KeywordStarts kKeywordStarts;

// Keywords after which a sign belongs to the number that follows, IS and NOT
// (after which NULL and the truth values are syntax), and those literals.
Role roleOf(const char* w, std::size_t size) {
    if (size > 9 || ((kKeywordStarts.lengths[static_cast<unsigned char>(w[0])] >> size) & 1) == 0) {
        return Role::Plain;
    }
    switch (size) {
        case 2:
            if (is(w, "is")) return Role::Is;
            return is(w, "or") || is(w, "by") || is(w, "in") || is(w, "on") ? Role::ExpectsValue : Role::Plain;
        case 3:
            if (is(w, "not")) return Role::Not;
            return is(w, "and") || is(w, "set") || is(w, "top") || is(w, "any") || is(w, "all") ? Role::ExpectsValue
                                                                                                : Role::Plain;
        case 4:
            if (is(w, "null") || is(w, "true")) return Role::Literal;
            return is(w, "then") || is(w, "else") || is(w, "when") || is(w, "case") || is(w, "like")
                       ? Role::ExpectsValue
                       : Role::Plain;
        case 5:
            if (is(w, "false")) return Role::Literal;
            return is(w, "where") || is(w, "limit") ? Role::ExpectsValue : Role::Plain;
        case 6:
            return is(w, "select") || is(w, "values") || is(w, "offset") || is(w, "return") || is(w, "having") ||
                           is(w, "escape") || is(w, "exists")
                       ? Role::ExpectsValue
                       : Role::Plain;
        case 7: return is(w, "between") ? Role::ExpectsValue : Role::Plain;
        case 8: return is(w, "interval") ? Role::ExpectsValue : Role::Plain;
        case 9: return is(w, "returning") ? Role::ExpectsValue : Role::Plain;
        default: return Role::Plain;
    }
}

bool isOperatorByte(char c) { return std::strchr("<>=!|&:-~*@", c) != nullptr && c != 0; }

// The scanners below read the statement, text[size] being its terminator.

// Copies the word at text[at] lowered to out and returns its length.
inline std::size_t copyWordLowered(const char* text, std::size_t at, char* out) {
    const char* const from = text + at;
    std::size_t count = 0;
    // Two bytes a turn; the terminator ends the word at the latest.
    for (;;) {
        const char first = kBytes.wordLower[static_cast<unsigned char>(from[count])];
        if (first == 0) {
            return count;
        }
        out[count] = first;
        const char second = kBytes.wordLower[static_cast<unsigned char>(from[count + 1])];
        if (second == 0) {
            return count + 1;
        }
        out[count + 1] = second;
        count += 2;
    }
}

char byteAt(const char* text, std::size_t size, std::size_t i) { return i < size ? text[i] : '\0'; }

// Index after a quoted text opened at from; doubled quotes stay inside.
std::size_t quotedEnd(const char* text, std::size_t size, std::size_t from, char quote, bool backslashes) {
    std::size_t i = from + 1;
    while (i < size) {
        const void* found = std::memchr(text + i, quote, size - i);
        std::size_t close = found != nullptr ? static_cast<std::size_t>(static_cast<const char*>(found) - text) : size;
        if (backslashes) {
            const void* escape = std::memchr(text + i, '\\', close - i);
            if (escape != nullptr) {
                i = static_cast<std::size_t>(static_cast<const char*>(escape) - text) + 2;
                continue;
            }
        }
        if (close == size) {
            return size;
        }
        if (byteAt(text, size, close + 1) != quote) {
            return close + 1;
        }
        i = close + 2;
    }
    return size;
}

// Oracle's q'[...]' with any delimiter; from is the quote.
std::size_t alternativeQuoteEnd(const char* text, std::size_t size, std::size_t from) {
    char delimiter = byteAt(text, size, from + 1);
    char closing = delimiter == '['   ? ']'
                   : delimiter == '{' ? '}'
                   : delimiter == '(' ? ')'
                   : delimiter == '<' ? '>'
                                      : delimiter;
    for (std::size_t i = from + 2; i + 1 < size; ++i) {
        if (text[i] == closing && text[i + 1] == '\'') {
            return i + 2;
        }
    }
    return size;
}

// PostgreSQL's $tag$...$tag$; 0 when at doesn't open one.
std::size_t dollarQuoteEnd(const char* text, std::size_t size, std::size_t at) {
    std::size_t i = at + 1;
    while (i < size && (isWordStart(text[i]) || (i > at + 1 && isDigit(text[i])))) {
        ++i;
    }
    if (byteAt(text, size, i) != '$') {
        return 0;
    }
    const std::size_t tagSize = i + 1 - at;
    for (std::size_t close = i + 1; close + tagSize <= size; ++close) {
        if (std::memcmp(text + close, text + at, tagSize) == 0) {
            return close + tagSize;
        }
    }
    return size;
}

std::size_t numberEnd(const char* text, std::size_t size, std::size_t i) {
    if (byteAt(text, size, i) == '0' && (byteAt(text, size, i + 1) == 'x' || byteAt(text, size, i + 1) == 'X')) {
        i += 2;
    }
    while (i < size && (isAlnum(text[i]) || text[i] == '.' || text[i] == '_')) {
        char c = text[i++];
        if ((c == 'e' || c == 'E') && (byteAt(text, size, i) == '+' || byteAt(text, size, i) == '-') &&
            isDigit(byteAt(text, size, i + 1))) {
            ++i;
        }
    }
    return i;
}

// The helpers of the one pass are inlined, so that its state stays in registers.
#define INLINE __attribute__((always_inline))

// Room for every token: each is at most as long as its text and one space
// precedes it, so the output never needs more than twice the input.
const std::size_t kSlack = 8;

}  // namespace

// One pass with its state in locals: the output may alias anything, so state
// kept in members would be reloaded after every byte written.
void appendNormalisedSql(std::string& out, const std::string& statement, SqlDialect dialect) {
    const char* const text = statement.c_str();
    const std::size_t size = statement.size();
    const bool mysql = dialect == SqlDialect::MySql;
    const std::size_t base = out.size();
    out.resize(base + 2 * size + kSlack);
    char* const buffer = &out[base];
    std::size_t length = 0;  // of the output
    std::size_t at = 0;      // in the text
    Kind previous = Kind::None;
    bool isContext = false;  // after IS or IS NOT, NULL and the truth values are syntax
    int executableComments = 0;
    GroupStack groups;

    auto put = [&](const char* bytes, std::size_t count) INLINE {
        std::memcpy(buffer + length, bytes, count);
        length += count;
    };
    auto space = [&](Kind kind) INLINE {
        if (((kGluedAfter >> static_cast<unsigned>(previous)) & 1) == 0 && (kGluedBefore & kindBit(kind)) == 0) {
            buffer[length++] = ' ';
        }
    };
    // Something other than a placeholder, a comma or a group in the open group.
    auto spoilGroup = [&]() INLINE {
        if (!groups.empty()) {
            groups.back().placeholders = false;
        }
    };
    auto placeholderItem = [&]() INLINE {
        if (groups.empty()) {
            return;
        }
        Group& group = groups.back();
        if (group.expectItem) {
            group.expectItem = false;
        } else {
            group.placeholders = false;
        }
    };
    auto emit = [&](const char* bytes, std::size_t count, Kind kind) INLINE {
        space(kind);
        put(bytes, count);
        previous = kind;
        isContext = false;
        spoilGroup();
    };
    auto emitLiteral = [&]() INLINE {
        space(Kind::Value);
        buffer[length++] = '?';
        previous = Kind::Value;
        isContext = false;
        placeholderItem();
    };
    // A group of placeholders only (an IN list, a VALUES row) becomes "(?)",
    // and a run of such groups one of them.
    auto close = [&]() INLINE {
        if (groups.empty()) {
            emit(")", 1, Kind::Close);
            return;
        }
        Group group = groups.back();
        groups.pop_back();
        previous = Kind::Close;
        isContext = false;
        if (!group.placeholders || group.expectItem) {
            buffer[length++] = ')';
            spoilGroup();
            return;
        }
        length = group.open;
        put("(?)", 3);
        static const char kRepeat[] = "(?), (?)";
        const std::size_t repeat = sizeof kRepeat - 1;
        if (length >= repeat && std::memcmp(buffer + length - repeat, kRepeat, repeat) == 0) {
            length -= 5;
        }
        placeholderItem();
    };
    auto comment = [&]() INLINE -> bool {
        char c = text[at];
        char next = byteAt(text, size, at + 1);
        bool line =
            (c == '-' && next == '-' && (!mysql || at + 2 >= size || isSpace(text[at + 2]))) || (c == '#' && mysql);
        if (line) {
            const void* newline = std::memchr(text + at, '\n', size - at);
            at = newline != nullptr ? static_cast<std::size_t>(static_cast<const char*>(newline) - text) : size;
            return true;
        }
        if (c == '/' && next == '*') {
            if (mysql && byteAt(text, size, at + 2) == '!') {
                // Executed by the server: its content is part of the statement.
                at += 3;
                while (at < size && isDigit(text[at])) {
                    ++at;
                }
                ++executableComments;
                return true;
            }
            std::size_t end = at + 2;
            for (;;) {
                const void* star = end < size ? std::memchr(text + end, '*', size - end) : nullptr;
                end = star != nullptr ? static_cast<std::size_t>(static_cast<const char*>(star) - text) : size;
                if (end + 1 >= size || text[end + 1] == '/') {
                    break;
                }
                ++end;
            }
            at = end + 1 < size ? end + 2 : size;
            return true;
        }
        if (c == '*' && next == '/' && executableComments > 0) {
            --executableComments;
            at += 2;
            return true;
        }
        return false;
    };
    auto word = [&]() INLINE {
        const std::size_t start = length;
        space(Kind::Value);
        char* const lowerWord = buffer + length;
        const std::size_t count = copyWordLowered(text, at, lowerWord);
        const std::size_t end = at + count;
        const char first = lowerWord[0];
        if (text[end] == '\'') {
            if (count == 1 && first == 'q' && dialect == SqlDialect::Oracle) {
                length = start;
                at = alternativeQuoteEnd(text, size, end);
                emitLiteral();
                return;
            }
            if ((count == 1 && (first == 'n' || first == 'e' || first == 'b' || first == 'x')) || first == '_') {
                length = start;
                at = quotedEnd(text, size, end, '\'', mysql || first == 'e');
                emitLiteral();
                return;
            }
        }
        length += count;
        at = end;
        Role role = roleOf(lowerWord, count);
        if (role == Role::Literal && !isContext) {
            length = start;
            emitLiteral();
            return;
        }
        bool context = role == Role::Is || (role == Role::Not && isContext);
        previous = role == Role::Plain || role == Role::Literal ? Kind::Value : Kind::Keyword;
        spoilGroup();
        isContext = context;
    };
    // Copies a quoted identifier as it is: its case may matter.
    auto verbatim = [&](std::size_t end) INLINE {
        emit(text + at, end - at, Kind::Value);
        at = end;
    };
    auto operatorToken = [&]() INLINE {
        static const Spelling kLong[] = {SPELLING("<=>"), SPELLING("->>"), SPELLING("!~*"), SPELLING("<="),
                                         SPELLING(">="),  SPELLING("<>"),  SPELLING("!="),  SPELLING("=="),
                                         SPELLING("||"),  SPELLING("&&"),  SPELLING("::"),  SPELLING(":="),
                                         SPELLING("->"),  SPELLING("<<"),  SPELLING(">>"),  SPELLING("!~"),
                                         SPELLING("~*"),  SPELLING("@>"),  SPELLING("<@")};
        if (isOperatorByte(byteAt(text, size, at + 1))) {
            for (const Spelling& candidate : kLong) {
                if (at + candidate.size <= size && std::memcmp(text + at, candidate.text, candidate.size) == 0) {
                    emit(candidate.text, candidate.size, Kind::Operator);
                    at += candidate.size;
                    return;
                }
            }
        }
        emit(text + at, 1, Kind::Operator);
        ++at;
    };

    while (at < size) {
        const char c = text[at];
        const unsigned char bits = bitsOf(c);
        if (bits & kSpaceBit) {
            do {
                ++at;
            } while (isSpace(text[at]));  // the terminator is no blank
            continue;
        }
        if (bits & kWordStartBit) {
            word();
            continue;
        }
        if ((c == '-' || c == '#' || c == '/' || c == '*') && comment()) {
            continue;
        }
        if ((bits & kDigitBit) || (c == '.' && isDigit(byteAt(text, size, at + 1)) && previous != Kind::Value)) {
            at = numberEnd(text, size, at);
            emitLiteral();
            continue;
        }
        switch (c) {
            case '\'':
                at = quotedEnd(text, size, at, '\'', mysql);
                emitLiteral();
                continue;
            case '"':
                if (mysql) {
                    at = quotedEnd(text, size, at, '"', true);
                    emitLiteral();
                } else {
                    verbatim(quotedEnd(text, size, at, '"', false));
                }
                continue;
            case '`': verbatim(quotedEnd(text, size, at, '`', false)); continue;
            case '[':
                if (dialect == SqlDialect::SqlServer) {
                    const void* found = std::memchr(text + at, ']', size - at);
                    verbatim(found != nullptr ? static_cast<std::size_t>(static_cast<const char*>(found) - text) + 1
                                              : size);
                    continue;
                }
                break;
            case '?':
                ++at;
                emitLiteral();
                continue;
            case '(':
                ++at;
                space(Kind::Open);
                groups.push_back(Group{length, true, true});
                buffer[length++] = '(';
                previous = Kind::Open;
                isContext = false;
                continue;
            case ')':
                ++at;
                close();
                continue;
            case ',':
                ++at;
                space(Kind::Comma);
                buffer[length++] = ',';
                previous = Kind::Comma;
                isContext = false;
                if (!groups.empty()) {
                    Group& group = groups.back();
                    group.placeholders = group.placeholders && !group.expectItem;
                    group.expectItem = true;
                }
                continue;
            case '.':
                emit(".", 1, Kind::Dot);
                ++at;
                continue;
            case ';':
                emit(";", 1, Kind::Semicolon);
                ++at;
                continue;
            case '-':
            case '+': {
                bool digitFollows = isDigit(byteAt(text, size, at + 1)) ||
                                    (byteAt(text, size, at + 1) == '.' && isDigit(byteAt(text, size, at + 2)));
                if (digitFollows && previous != Kind::Value && previous != Kind::Close) {
                    at = numberEnd(text, size, at + 1);
                    emitLiteral();
                    continue;
                }
                break;
            }
            case '$':
                if (isDigit(byteAt(text, size, at + 1))) {
                    at = numberEnd(text, size, at + 1);
                    emitLiteral();
                    continue;
                }
                if (dialect == SqlDialect::Postgres) {
                    if (std::size_t end = dollarQuoteEnd(text, size, at)) {
                        at = end;
                        emitLiteral();
                        continue;
                    }
                }
                break;
            case ':':
                if (isWordStart(byteAt(text, size, at + 1)) && (at == 0 || text[at - 1] != ':')) {
                    ++at;  // a named parameter
                    while (isWordPart(text[at])) {
                        ++at;
                    }
                    emitLiteral();
                    continue;
                }
                break;
            case '@':
                if (byteAt(text, size, at + 1) != '@' && isWordStart(byteAt(text, size, at + 1)) &&
                    dialect == SqlDialect::SqlServer) {
                    ++at;
                    while (isWordPart(text[at])) {
                        ++at;
                    }
                    emitLiteral();
                    continue;
                }
                if (isWordStart(byteAt(text, size, at + 1)) || byteAt(text, size, at + 1) == '@') {
                    std::size_t end = at + 1;
                    while (isWordPart(text[end]) || text[end] == '@') {
                        ++end;
                    }
                    space(Kind::Value);
                    for (std::size_t i = at; i < end; ++i) {
                        buffer[length++] = lowered(text[i]);
                    }
                    previous = Kind::Value;
                    isContext = false;
                    spoilGroup();
                    at = end;
                    continue;
                }
                break;
            default: break;
        }
        operatorToken();
    }
    while (length > 0 && (buffer[length - 1] == ';' || buffer[length - 1] == ' ')) {
        --length;  // a closing semicolon is no part of the shape
    }
    out.resize(base + length);
}

std::string normaliseSql(const std::string& text, SqlDialect dialect) {
    std::string out;
    appendNormalisedSql(out, text, dialect);
    return out;
}

}  // namespace baseeng
