#include "normalise_command.h"

#include <cstring>
#include <string_view>
#include <vector>

#include "feature_memo.h"
#include "normalise_path.h"
#include "variable_runs.h"

namespace baseeng {

namespace {

// Nested "sh -c" deeper than this is kept as it is.
const int kMaxScriptDepth = 3;

// What the folding of one command line reads besides the line.
struct Learned {
    const DirectorySet* directories;  // may be null
    FeatureMemo* memo;                // folded directories; may be null
};

// A word of a command line: in the line itself, or unquoted into
// Words::letters when it had quotes or backslashes.
struct Word {
    const char* text;
    std::size_t size;
    bool control;  // a shell operator: | || && ; & ( ) < > >>
};

// The words of one line, on the stack for the usual handful: a line is
// split for every event.
class Words {
public:
    explicit Words(std::size_t lineSize) : m_lineSize(lineSize) {}
    Words(const Words&) = delete;
    Words& operator=(const Words&) = delete;

    std::size_t size() const { return m_size; }
    const Word& operator[](std::size_t i) const { return i < kInline ? m_inline[i] : m_more[i - kInline]; }
    void push_back(const Word& word) {
        if (m_size < kInline) {
            m_inline[m_size] = word;
        } else {
            m_more.push_back(word);
        }
        ++m_size;
    }
    // Room for unquoted text: never more than the line, so earlier words
    // stay where they are.
    std::string& letters() {
        if (m_letters.capacity() < m_lineSize) {
            m_letters.reserve(m_lineSize);
        }
        return m_letters;
    }

private:
    static const std::size_t kInline = 24;
    Word m_inline[kInline];
    std::vector<Word> m_more;
    std::size_t m_size = 0;
    std::size_t m_lineSize;
    std::string m_letters;
};

enum : unsigned char { kBlankBit = 1, kControlBit = 2, kQuotingBit = 4 };

struct LineBytes {
    unsigned char of[256] = {};
    constexpr LineBytes() {
        for (unsigned char c : {' ', '\t', '\n', '\r'}) of[c] = kBlankBit;
        for (unsigned char c : {'|', '&', ';', '<', '>', '(', ')'}) of[c] = kControlBit;
        for (unsigned char c : {'\'', '"', '\\'}) of[c] = kQuotingBit;
    }
};
constexpr LineBytes kLineBytes;

unsigned char lineBitsOf(char c) { return kLineBytes.of[static_cast<unsigned char>(c)]; }
bool isBlank(char c) { return lineBitsOf(c) & kBlankBit; }
bool isControl(char c) { return lineBitsOf(c) & kControlBit; }

// Splits as a shell would: blanks separate, quotes and backslashes group.
// With script, operators are words of their own.
void splitWords(Words& words, const char* line, std::size_t size, bool script) {
    const unsigned char stops = kBlankBit | kQuotingBit | (script ? kControlBit : 0);
    std::size_t i = 0;
    while (i < size) {
        while (i < size && isBlank(line[i])) {
            ++i;
        }
        if (i == size) {
            break;
        }
        const std::size_t start = i;
        if (script && isControl(line[i])) {
            while (i < size && isControl(line[i])) {
                ++i;
            }
            words.push_back(Word{line + start, i - start, true});
            continue;
        }
        while (i < size && !(lineBitsOf(line[i]) & stops)) {
            ++i;
        }
        if (i == size || !(lineBitsOf(line[i]) & kQuotingBit)) {
            words.push_back(Word{line + start, i - start, false});  // as it stands in the line
            continue;
        }
        // Quotes or backslashes: the word is unquoted into the letters.
        std::string& letters = words.letters();
        const std::size_t first = letters.size();
        letters.append(line + start, i - start);
        bool quoted = false;
        while (i < size && !isBlank(line[i]) && !(script && isControl(line[i]))) {
            std::size_t plain = i;
            while (plain < size && !(lineBitsOf(line[plain]) & stops)) {
                ++plain;
            }
            if (plain > i) {
                letters.append(line + i, plain - i);
                i = plain;
                continue;
            }
            char c = line[i++];
            if (c == '\'') {
                quoted = true;
                const void* close = std::memchr(line + i, '\'', size - i);
                std::size_t end =
                    close != nullptr ? static_cast<std::size_t>(static_cast<const char*>(close) - line) : size;
                letters.append(line + i, end - i);
                i = end + (end < size);
            } else if (c == '"') {
                quoted = true;
                while (i < size && line[i] != '"') {
                    if (line[i] == '\\' && i + 1 < size) {
                        ++i;
                    }
                    letters.push_back(line[i++]);
                }
                i += i < size;
            } else if (c == '\\' && i < size) {
                letters.push_back(line[i++]);
            } else {
                letters.push_back(c);
            }
        }
        if (letters.size() == first && !quoted) {
            continue;
        }
        words.push_back(Word{letters.data() + first, letters.size() - first, false});
    }
}

bool isShell(const char* executable, std::size_t size) {
    std::size_t base = size;
    while (base > 0 && executable[base - 1] != '/') {
        --base;
    }
    auto is = [&](const char* name) {
        std::size_t length = std::strlen(name);
        return size - base == length && std::memcmp(executable + base, name, length) == 0;
    };
    return is("sh") || is("bash") || is("dash") || is("zsh") || is("ksh") || is("ash");
}

// -c, or a cluster of one-letter options ending in c (-ec, -xc).
bool isScriptOption(const char* word, std::size_t size) {
    if (size < 2 || word[0] != '-' || word[size - 1] != 'c') {
        return false;
    }
    for (std::size_t i = 1; i < size; ++i) {
        if (!isLower(word[i])) {
            return false;
        }
    }
    return true;
}

const char* findByte(const char* text, std::size_t size, char byte) {
    return static_cast<const char*>(std::memchr(text, byte, size));
}

// A file in a learned directory becomes "<directory>/*<extension>".
void appendValue(std::string& out, const char* value, std::size_t size, const Learned& learned) {
    if (findByte(value, size, '/') == nullptr) {
        appendFoldedSegment(out, value, size, false);
        return;
    }
    std::size_t start = out.size();
    appendNormalisedPath(out, value, size, learned.memo);
    if (learned.directories == nullptr || learned.directories->empty()) {
        return;
    }
    const char* folded = out.data() + start;
    std::size_t foldedSize = out.size() - start;
    const char* lastSlash = static_cast<const char*>(memrchr(folded, '/', foldedSize));
    if (lastSlash == nullptr || lastSlash == folded) {
        return;
    }
    std::size_t slash = static_cast<std::size_t>(lastSlash - folded);
    if (learned.directories->count(std::string_view(folded, slash)) == 0) {
        return;
    }
    const char* lastDot = static_cast<const char*>(memrchr(lastSlash, '.', foldedSize - slash));
    std::size_t extensionSize = lastDot != nullptr && foldedSize - static_cast<std::size_t>(lastDot - folded) <= 10
                                    ? foldedSize - static_cast<std::size_t>(lastDot - folded)
                                    : 0;
    char extension[10];
    std::memcpy(extension, folded + foldedSize - extensionSize, extensionSize);
    out.resize(start + slash + 1);
    out += '*';
    out.append(extension, extensionSize);
}

// An option keeps its name; "name=value" keeps the name and folds the value.
void appendArgument(std::string& out, const char* argument, std::size_t size, const Learned& learned) {
    if (size == 0) {
        out += "''";
        return;
    }
    const char* equals = findByte(argument, size, '=');
    const char* slash = findByte(argument, size, '/');
    if (equals != nullptr && equals > argument && (slash == nullptr || equals < slash)) {
        std::size_t name = static_cast<std::size_t>(equals - argument) + 1;
        appendFoldedSegment(out, argument, name, false);
        appendValue(out, argument + name, size - name, learned);
        return;
    }
    appendValue(out, argument, size, learned);
}

void appendScript(std::string& out, const char* script, std::size_t size, const Learned& learned, int depth);

// Appends the arguments of one command from words[i], up to a control
// word when in a script; returns the index after them.
std::size_t appendArguments(std::string& out, bool shell, const Words& words, std::size_t i, const Learned& learned,
                            int depth) {
    std::size_t previousStart = std::string::npos;
    std::size_t previousSize = 0;
    while (i < words.size() && !words[i].control) {
        const Word& word = words[i];
        const char* text = word.text;
        if (shell && isScriptOption(text, word.size) && i + 1 < words.size() && !words[i + 1].control &&
            depth < kMaxScriptDepth) {
            out += ' ';
            out.append(text, word.size);
            out += " [";
            appendScript(out, words[i + 1].text, words[i + 1].size, learned, depth + 1);
            out += ']';
            previousStart = std::string::npos;
            i += 2;
            continue;
        }
        out += ' ';
        std::size_t start = out.size();
        appendArgument(out, text, word.size, learned);
        std::size_t size = out.size() - start;
        // A list of like arguments (several uploads, several ids) is one shape.
        bool variable = std::memchr(out.data() + start, '<', size) != nullptr ||
                        std::memchr(out.data() + start, '*', size) != nullptr;
        if (variable && previousStart != std::string::npos && previousSize == size &&
            out.compare(previousStart, size, out, start, size) == 0) {
            out.resize(start - 1);
        } else {
            previousStart = start;
            previousSize = size;
        }
        ++i;
    }
    return i;
}

void appendScript(std::string& out, const char* script, std::size_t size, const Learned& learned, int depth) {
    Words words(size);
    splitWords(words, script, size, true);
    std::size_t first = out.size();
    std::size_t i = 0;
    bool redirected = false;
    auto separate = [&] {
        if (out.size() > first) {
            out += ' ';
        }
    };
    while (i < words.size()) {
        const Word& word = words[i];
        const char* text = word.text;
        if (word.control) {
            separate();
            out.append(text, word.size);
            redirected = findByte(text, word.size, '<') != nullptr || findByte(text, word.size, '>') != nullptr;
            ++i;
            continue;
        }
        separate();
        if (redirected) {
            // A redirection's target is a file; what follows belongs to the command before it.
            appendArgument(out, text, word.size, learned);
            redirected = false;
            i = appendArguments(out, false, words, i + 1, learned, depth);
            continue;
        }
        const char* equals = findByte(text, word.size, '=');
        if (equals != nullptr && equals > text && i + 1 < words.size() && !words[i + 1].control) {
            appendArgument(out, text, word.size, learned);  // an assignment before the command
            ++i;
            continue;
        }
        out.append(text, word.size);
        i = appendArguments(out, isShell(text, word.size), words, i + 1, learned, depth);
    }
}

}  // namespace

void appendNormalisedCommand(std::string& out, const char* executable, std::size_t executableSize, const char* line,
                             std::size_t lineSize, const DirectorySet* directories, FeatureMemo* memo) {
    const Learned learned{directories, memo};
    Words words(lineSize);
    splitWords(words, line, lineSize, false);
    if (executableSize == 0 && words.size() > 0) {
        out.append(words[0].text, words[0].size);
        appendArguments(out, isShell(words[0].text, words[0].size), words, 1, learned, 0);
        return;
    }
    out.append(executable, executableSize);
    appendArguments(out, isShell(executable, executableSize), words, words.size() == 0 ? 0 : 1, learned, 0);
}

std::string normaliseCommand(const std::string& executable, const std::string& commandLine,
                             const DirectorySet* learned) {
    std::string out;
    appendNormalisedCommand(out, executable.data(), executable.size(), commandLine.data(), commandLine.size(), learned);
    return out;
}

}  // namespace baseeng
