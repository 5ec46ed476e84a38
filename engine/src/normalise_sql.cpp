#include "normalise_sql.h"

#include <cstring>
#include <vector>

#include "variable_runs.h"

namespace baseeng {

namespace {

enum class Kind { None, Value, Keyword, Operator, Open, Close, Comma, Dot, Semicolon };

// A parenthesised group while it is open: whether it holds only placeholders.
struct Group {
    std::size_t open;  // position of its "(" in the output
    bool placeholders;
    bool expectItem;
};

// The open groups; statements rarely nest deeper than the inline part, so
// folding one allocates nothing.
class GroupStack {
public:
    bool empty() const { return m_size == 0; }
    Group& back() { return m_size <= kInline ? m_inline[m_size - 1] : m_more.back(); }
    void push_back(const Group& group) {
        if (m_size < kInline) {
            m_inline[m_size] = group;
        } else {
            m_more.push_back(group);
        }
        ++m_size;
    }
    void pop_back() {
        if (m_size > kInline) {
            m_more.pop_back();
        }
        --m_size;
    }

private:
    static const std::size_t kInline = 16;
    Group m_inline[kInline];
    std::vector<Group> m_more;
    std::size_t m_size = 0;
};

enum : unsigned char { kSpaceBit = 1, kWordStartBit = 2, kWordPartBit = 4, kDigitBit = 8 };

struct SqlBytes {
    unsigned char of[256] = {};
    char lower[256] = {};
    constexpr SqlBytes() {
        for (int c = 0; c < 256; ++c) lower[c] = static_cast<char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
        for (int c : {' ', '\t', '\n', '\r', '\f', '\v'}) of[c] = kSpaceBit;
        for (int c = 0x80; c < 0x100; ++c) of[c] = kWordStartBit | kWordPartBit;
        for (int c = 'a'; c <= 'z'; ++c) of[c] = kWordStartBit | kWordPartBit;
        for (int c = 'A'; c <= 'Z'; ++c) of[c] = kWordStartBit | kWordPartBit;
        of[static_cast<unsigned char>('_')] = kWordStartBit | kWordPartBit;
        for (int c = '0'; c <= '9'; ++c) of[c] = kWordPartBit | kDigitBit;
        of[static_cast<unsigned char>('$')] = of[static_cast<unsigned char>('#')] = kWordPartBit;
    }
};
constexpr SqlBytes kBytes;

unsigned char bitsOf(char c) { return kBytes.of[static_cast<unsigned char>(c)]; }
char lowerOf(char c) { return kBytes.lower[static_cast<unsigned char>(c)]; }
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

// Keywords after which a sign belongs to the number that follows, IS and NOT
// (after which NULL and the truth values are syntax), and those literals.
Role roleOf(const char* w, std::size_t size) {
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

class SqlFolder {
public:
    // Every token is at most as long as its text and one space precedes it:
    // the output never needs more than twice the input.
    SqlFolder(std::string& out, const char* text, std::size_t size, SqlDialect dialect)
        : m_text(text), m_size(size), m_dialect(dialect), m_out(out), m_base(out.size()) {
        m_out.resize(m_base + 2 * size + 8);
        m_buffer = &m_out[m_base];
    }

    void run() {
        while (m_at < m_size) {
            step();
        }
        while (m_length > 0 && (m_buffer[m_length - 1] == ';' || m_buffer[m_length - 1] == ' ')) {
            --m_length;  // a closing semicolon is no part of the shape
        }
        m_out.resize(m_base + m_length);
    }

private:
    char at(std::size_t i) const { return i < m_size ? m_text[i] : '\0'; }
    void put(char c) { m_buffer[m_length++] = c; }
    void put(const char* text, std::size_t size) {
        std::memcpy(m_buffer + m_length, text, size);
        m_length += size;
    }
    bool mysql() const { return m_dialect == SqlDialect::MySql; }

    void space(Kind kind) {
        bool glued = m_previous == Kind::None || m_previous == Kind::Open || m_previous == Kind::Dot ||
                     kind == Kind::Close || kind == Kind::Comma || kind == Kind::Dot || kind == Kind::Semicolon;
        if (!glued) {
            put(' ');
        }
    }

    // Something other than a placeholder, a comma or a group in the open group.
    void spoilGroup() {
        if (!m_groups.empty()) {
            m_groups.back().placeholders = false;
        }
    }

    void placeholderItem() {
        if (m_groups.empty()) {
            return;
        }
        Group& group = m_groups.back();
        if (group.expectItem) {
            group.expectItem = false;
        } else {
            group.placeholders = false;
        }
    }

    void emit(const char* text, std::size_t size, Kind kind) {
        space(kind);
        put(text, size);
        m_previous = kind;
        m_isContext = false;
        spoilGroup();
    }

    void emitLiteral() {
        space(Kind::Value);
        put('?');
        m_previous = Kind::Value;
        m_isContext = false;
        placeholderItem();
    }

    void open() {
        space(Kind::Open);
        m_groups.push_back(Group{m_length, true, true});
        put('(');
        m_previous = Kind::Open;
        m_isContext = false;
    }

    void comma() {
        space(Kind::Comma);
        put(',');
        m_previous = Kind::Comma;
        m_isContext = false;
        if (!m_groups.empty()) {
            Group& group = m_groups.back();
            group.placeholders = group.placeholders && !group.expectItem;
            group.expectItem = true;
        }
    }

    // A group of placeholders only (an IN list, a VALUES row) becomes "(?)",
    // and a run of such groups one of them.
    void close() {
        if (m_groups.empty()) {
            emit(")", 1, Kind::Close);
            return;
        }
        Group group = m_groups.back();
        m_groups.pop_back();
        m_previous = Kind::Close;
        m_isContext = false;
        if (!group.placeholders || group.expectItem) {
            put(')');
            spoilGroup();
            return;
        }
        m_length = group.open;
        put("(?)", 3);
        static const char kRepeat[] = "(?), (?)";
        const std::size_t repeat = sizeof kRepeat - 1;
        if (m_length >= repeat && std::memcmp(m_buffer + m_length - repeat, kRepeat, repeat) == 0) {
            m_length -= 5;
        }
        placeholderItem();
    }

    // Index after a quoted text opened at from; doubled quotes stay inside.
    std::size_t quotedEnd(std::size_t from, char quote, bool backslashes) const {
        std::size_t i = from + 1;
        while (i < m_size) {
            const void* found = std::memchr(m_text + i, quote, m_size - i);
            std::size_t close =
                found != nullptr ? static_cast<std::size_t>(static_cast<const char*>(found) - m_text) : m_size;
            if (backslashes) {
                const void* escape = std::memchr(m_text + i, '\\', close - i);
                if (escape != nullptr) {
                    i = static_cast<std::size_t>(static_cast<const char*>(escape) - m_text) + 2;
                    continue;
                }
            }
            if (close == m_size) {
                return m_size;
            }
            if (at(close + 1) != quote) {
                return close + 1;
            }
            i = close + 2;
        }
        return m_size;
    }

    // Oracle's q'[...]' with any delimiter; from is the quote.
    std::size_t alternativeQuoteEnd(std::size_t from) const {
        char delimiter = at(from + 1);
        char closing = delimiter == '['   ? ']'
                       : delimiter == '{' ? '}'
                       : delimiter == '(' ? ')'
                       : delimiter == '<' ? '>'
                                          : delimiter;
        for (std::size_t i = from + 2; i + 1 < m_size; ++i) {
            if (m_text[i] == closing && m_text[i + 1] == '\'') {
                return i + 2;
            }
        }
        return m_size;
    }

    // PostgreSQL's $tag$...$tag$; 0 when m_at doesn't open one.
    std::size_t dollarQuoteEnd() const {
        std::size_t i = m_at + 1;
        while (i < m_size && (isWordStart(m_text[i]) || (i > m_at + 1 && isDigit(m_text[i])))) {
            ++i;
        }
        if (at(i) != '$') {
            return 0;
        }
        const std::size_t tagSize = i + 1 - m_at;
        for (std::size_t close = i + 1; close + tagSize <= m_size; ++close) {
            if (std::memcmp(m_text + close, m_text + m_at, tagSize) == 0) {
                return close + tagSize;
            }
        }
        return m_size;
    }

    std::size_t numberEnd(std::size_t i) const {
        if (at(i) == '0' && (at(i + 1) == 'x' || at(i + 1) == 'X')) {
            i += 2;
        }
        while (i < m_size && (isAlnum(m_text[i]) || m_text[i] == '.' || m_text[i] == '_')) {
            char c = m_text[i++];
            if ((c == 'e' || c == 'E') && (at(i) == '+' || at(i) == '-') && isDigit(at(i + 1))) {
                ++i;
            }
        }
        return i;
    }

    bool signOfNumber() const {
        bool digitFollows = isDigit(at(m_at + 1)) || (at(m_at + 1) == '.' && isDigit(at(m_at + 2)));
        return digitFollows && m_previous != Kind::Value && m_previous != Kind::Close;
    }

    bool comment() {
        char c = m_text[m_at];
        char next = at(m_at + 1);
        bool line = (c == '-' && next == '-' && (!mysql() || m_at + 2 >= m_size || isSpace(at(m_at + 2)))) ||
                    (c == '#' && mysql());
        if (line) {
            while (m_at < m_size && m_text[m_at] != '\n') {
                ++m_at;
            }
            return true;
        }
        if (c == '/' && next == '*') {
            if (mysql() && at(m_at + 2) == '!') {
                // Executed by the server: its content is part of the statement.
                m_at += 3;
                while (m_at < m_size && isDigit(m_text[m_at])) {
                    ++m_at;
                }
                ++m_executableComments;
                return true;
            }
            std::size_t end = m_at + 2;
            for (;;) {
                const void* star = end < m_size ? std::memchr(m_text + end, '*', m_size - end) : nullptr;
                end = star != nullptr ? static_cast<std::size_t>(static_cast<const char*>(star) - m_text) : m_size;
                if (end + 1 >= m_size || m_text[end + 1] == '/') {
                    break;
                }
                ++end;
            }
            m_at = end + 1 < m_size ? end + 2 : m_size;
            return true;
        }
        if (c == '*' && next == '/' && m_executableComments > 0) {
            --m_executableComments;
            m_at += 2;
            return true;
        }
        return false;
    }

    void word() {
        std::size_t start = m_length;
        space(Kind::Value);
        // Scanned and copied lowered in one pass, with locals: the output may
        // alias anything, so members would be reloaded on every byte.
        const char* text = m_text;
        const std::size_t size = m_size;
        char* write = m_buffer + m_length;
        char* const lowerWord = write;
        std::size_t end = m_at;
        while (end < size && isWordPart(text[end])) {
            *write++ = lowerOf(text[end++]);
        }
        std::size_t length = end - m_at;
        char first = lowerWord[0];
        if (end < size && text[end] == '\'') {
            if (length == 1 && first == 'q' && m_dialect == SqlDialect::Oracle) {
                m_length = start;
                m_at = alternativeQuoteEnd(end);
                emitLiteral();
                return;
            }
            if ((length == 1 && (first == 'n' || first == 'e' || first == 'b' || first == 'x')) || first == '_') {
                m_length = start;
                m_at = quotedEnd(end, '\'', mysql() || first == 'e');
                emitLiteral();
                return;
            }
        }
        m_length = static_cast<std::size_t>(write - m_buffer);
        m_at = end;
        Role role = roleOf(lowerWord, length);
        if (role == Role::Literal && !m_isContext) {
            m_length = start;
            emitLiteral();
            return;
        }
        bool context = role == Role::Is || (role == Role::Not && m_isContext);
        m_previous = role == Role::Plain || role == Role::Literal ? Kind::Value : Kind::Keyword;
        spoilGroup();
        m_isContext = context;
    }

    // Copies a quoted identifier as it is: its case may matter.
    void verbatim(std::size_t end) {
        emit(m_text + m_at, end - m_at, Kind::Value);
        m_at = end;
    }

    void operatorToken() {
        static const Spelling kLong[] = {SPELLING("<=>"), SPELLING("->>"), SPELLING("!~*"), SPELLING("<="),
                                         SPELLING(">="),  SPELLING("<>"),  SPELLING("!="),  SPELLING("=="),
                                         SPELLING("||"),  SPELLING("&&"),  SPELLING("::"),  SPELLING(":="),
                                         SPELLING("->"),  SPELLING("<<"),  SPELLING(">>"),  SPELLING("!~"),
                                         SPELLING("~*"),  SPELLING("@>"),  SPELLING("<@")};
        if (isOperatorByte(at(m_at + 1))) {
            for (const Spelling& candidate : kLong) {
                if (m_at + candidate.size <= m_size &&
                    std::memcmp(m_text + m_at, candidate.text, candidate.size) == 0) {
                    emit(candidate.text, candidate.size, Kind::Operator);
                    m_at += candidate.size;
                    return;
                }
            }
        }
        emit(m_text + m_at, 1, Kind::Operator);
        ++m_at;
    }

    void step() {
        char c = m_text[m_at];
        unsigned char bits = bitsOf(c);
        if (bits & kSpaceBit) {
            ++m_at;
            return;
        }
        if (bits & kWordStartBit) {
            word();
            return;
        }
        if ((c == '-' || c == '#' || c == '/' || c == '*') && comment()) {
            return;
        }
        if ((bits & kDigitBit) || (c == '.' && isDigit(at(m_at + 1)) && m_previous != Kind::Value)) {
            m_at = numberEnd(m_at);
            emitLiteral();
            return;
        }
        switch (c) {
            case '\'':
                m_at = quotedEnd(m_at, '\'', mysql());
                emitLiteral();
                return;
            case '"':
                if (mysql()) {
                    m_at = quotedEnd(m_at, '"', true);
                    emitLiteral();
                } else {
                    verbatim(quotedEnd(m_at, '"', false));
                }
                return;
            case '`': verbatim(quotedEnd(m_at, '`', false)); return;
            case '[':
                if (m_dialect == SqlDialect::SqlServer) {
                    std::size_t end = m_at;
                    while (end < m_size && m_text[end] != ']') {
                        ++end;
                    }
                    verbatim(end < m_size ? end + 1 : m_size);
                    return;
                }
                break;
            case '?':
                ++m_at;
                emitLiteral();
                return;
            case '(':
                ++m_at;
                open();
                return;
            case ')':
                ++m_at;
                close();
                return;
            case ',':
                ++m_at;
                comma();
                return;
            case '.':
                emit(".", 1, Kind::Dot);
                ++m_at;
                return;
            case ';':
                emit(";", 1, Kind::Semicolon);
                ++m_at;
                return;
            case '-':
            case '+':
                if (signOfNumber()) {
                    m_at = numberEnd(m_at + 1);
                    emitLiteral();
                    return;
                }
                break;
            case '$':
                if (isDigit(at(m_at + 1))) {
                    m_at = numberEnd(m_at + 1);
                    emitLiteral();
                    return;
                }
                if (m_dialect == SqlDialect::Postgres) {
                    if (std::size_t end = dollarQuoteEnd()) {
                        m_at = end;
                        emitLiteral();
                        return;
                    }
                }
                break;
            case ':':
                if (isWordStart(at(m_at + 1)) && (m_at == 0 || m_text[m_at - 1] != ':')) {
                    ++m_at;  // a named parameter
                    while (m_at < m_size && isWordPart(m_text[m_at])) {
                        ++m_at;
                    }
                    emitLiteral();
                    return;
                }
                break;
            case '@':
                if (at(m_at + 1) != '@' && isWordStart(at(m_at + 1)) && m_dialect == SqlDialect::SqlServer) {
                    ++m_at;
                    while (m_at < m_size && isWordPart(m_text[m_at])) {
                        ++m_at;
                    }
                    emitLiteral();
                    return;
                }
                if (isWordStart(at(m_at + 1)) || at(m_at + 1) == '@') {
                    std::size_t end = m_at + 1;
                    while (end < m_size && (isWordPart(m_text[end]) || m_text[end] == '@')) {
                        ++end;
                    }
                    space(Kind::Value);
                    for (std::size_t i = m_at; i < end; ++i) {
                        put(lowered(m_text[i]));
                    }
                    m_previous = Kind::Value;
                    m_isContext = false;
                    spoilGroup();
                    m_at = end;
                    return;
                }
                break;
            default: break;
        }
        operatorToken();
    }

    const char* const m_text;
    const std::size_t m_size;
    const SqlDialect m_dialect;
    std::size_t m_at = 0;
    std::string& m_out;
    const std::size_t m_base;
    char* m_buffer;
    std::size_t m_length = 0;
    Kind m_previous = Kind::None;
    bool m_isContext = false;  // after IS or IS NOT, NULL and the truth values are syntax
    int m_executableComments = 0;
    GroupStack m_groups;
};

}  // namespace

void appendNormalisedSql(std::string& out, const char* text, std::size_t size, SqlDialect dialect) {
    SqlFolder(out, text, size, dialect).run();
}

std::string normaliseSql(const std::string& text, SqlDialect dialect) {
    std::string out;
    appendNormalisedSql(out, text.data(), text.size(), dialect);
    return out;
}

}  // namespace baseeng
