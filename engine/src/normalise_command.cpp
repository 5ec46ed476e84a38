#include "normalise_command.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

#include "feature_memo.h"
#include "inline_vector.h"
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

// Classes of a line's bytes, one byte each: how they split words, and (gathered
// while a word is split) what the word holds, so that most words need no
// second look.
enum : unsigned {
    // kMarkDigit, kMarkUpper and kMarkUnderscore of variable_runs.h: 1, 2, 4
    kSlashBit = 8,
    kEqualsBit = 16,
    kAngleOrStarBit = 32,  // '<' or '*', which mark a folded argument as variable
    kStopBit = 64,         // a blank, a quote, a backslash or '\0' (the terminator, or a byte of the line)
    kControlBit = 128,     // a shell operator's byte
};
const unsigned kMarkBits = kMarkDigit | kMarkUpper | kMarkUnderscore;
const unsigned kContentBits = kMarkBits | kSlashBit | kEqualsBit | kAngleOrStarBit;

struct LineBytes {
    unsigned char of[256] = {};
    bool blank[256] = {};
    bool quoting[256] = {};
    constexpr LineBytes() {
        for (int c = 0; c < 256; ++c) of[c] = detail::kMarkBytes.of[c];
        of[static_cast<unsigned char>('/')] = kSlashBit;
        of[static_cast<unsigned char>('=')] = kEqualsBit;
        of[static_cast<unsigned char>('*')] = kAngleOrStarBit;
        for (unsigned char c : {' ', '\t', '\n', '\r'}) {
            of[c] = kStopBit;
            blank[c] = true;
        }
        for (unsigned char c : {'|', '&', ';', '<', '>', '(', ')'}) of[c] = kControlBit;
        of[static_cast<unsigned char>('<')] |= kAngleOrStarBit;
        for (unsigned char c : {'\'', '"', '\\'}) {
            of[c] = kStopBit;
            quoting[c] = true;
        }
        of[0] = kStopBit;
    }
};
constexpr LineBytes kLineBytes;

unsigned lineBitsOf(char c) { return kLineBytes.of[static_cast<unsigned char>(c)]; }
bool isBlank(char c) { return kLineBytes.blank[static_cast<unsigned char>(c)]; }
bool isQuoting(char c) { return kLineBytes.quoting[static_cast<unsigned char>(c)]; }
bool isControl(char c) { return lineBitsOf(c) & kControlBit; }

unsigned contentOf(const char* text, std::size_t size) {
    unsigned classes = 0;
    for (std::size_t i = 0; i < size; ++i) {
        classes |= lineBitsOf(text[i]);
    }
    return classes & kContentBits;
}

// The marks of part of a word, from the word's: none in the word, none in the part.
unsigned marksWithin(unsigned wordClasses, const char* text, std::size_t size) {
    return (wordClasses & kMarkBits) == 0 ? 0 : marksOf(text, size);
}

// A word of a command line: in the line itself, or unquoted into
// Words::letters when it had quotes or backslashes.
struct Word {
    const char* text;
    std::size_t size;
    unsigned classes;  // kContentBits of its bytes
    bool control;      // a shell operator: | || && ; & ( ) < > >>
};

// The words of one line, on the stack for the usual handful: a line is
// split for every event.
class Words {
public:
    explicit Words(std::size_t lineSize) : m_lineSize(lineSize) {}
    Words(const Words&) = delete;
    Words& operator=(const Words&) = delete;

    std::size_t size() const { return m_words.size(); }
    const Word& operator[](std::size_t i) const { return m_words[i]; }
    void push_back(const Word& word) { m_words.push_back(word); }
    // Room for unquoted text: never more than the line, so earlier words
    // stay where they are.
    std::string& letters() {
        if (m_letters.capacity() < m_lineSize) {
            m_letters.reserve(m_lineSize);
        }
        return m_letters;
    }

private:
    InlineVector<Word, 24> m_words;
    std::size_t m_lineSize;
    std::string m_letters;
};

// The feature as it is written: room is made ahead of each piece, which is
// then written through a pointer.
class Output {
public:
    Output(std::string& text, std::size_t expected) : m_text(text), m_length(text.size()) {
        m_text.resize(m_length + expected);
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // Where count more bytes may be written.
    char* room(std::size_t count) {
        if (m_text.size() - m_length < count) {
            m_text.resize(std::max(m_length + count, 2 * m_text.size()));
        }
        return &m_text[m_length];
    }
    void endAt(const char* end) { m_length = static_cast<std::size_t>(end - m_text.data()); }
    void put(char c) {
        *room(1) = c;
        ++m_length;
    }
    void put(const char* text, std::size_t count) {
        std::memcpy(room(count), text, count);
        m_length += count;
    }
    std::size_t size() const { return m_length; }
    const char* data() const { return m_text.data(); }
    void truncate(std::size_t length) { m_length = length; }
    void finish() { m_text.resize(m_length); }

private:
    std::string& m_text;
    std::size_t m_length;
};

// Splits as a shell would: blanks separate, quotes and backslashes group.
// With script, operators are words of their own. line[size] is '\0'.
void splitWords(Words& words, const char* line, std::size_t size, bool script) {
    const unsigned stops = kStopBit | (script ? static_cast<unsigned>(kControlBit) : 0u);
    std::size_t i = 0;
    for (;;) {
        while (isBlank(line[i])) {
            ++i;  // the terminator is no blank
        }
        if (i >= size) {
            break;
        }
        const std::size_t start = i;
        if (script && isControl(line[i])) {
            while (isControl(line[i])) {
                ++i;
            }
            words.push_back(Word{line + start, i - start, contentOf(line + start, i - start), true});
            continue;
        }
        // Two bytes a turn up to a stop; a '\0' within the line is a byte of the word.
        unsigned classes = 0;
        for (;;) {
            unsigned bits = lineBitsOf(line[i]);
            if ((bits & stops) && (line[i] != '\0' || i >= size)) {
                break;
            }
            classes |= bits;
            bits = lineBitsOf(line[i + 1]);  // line[i] is no terminator: line[i + 1] is within
            if ((bits & stops) && (line[i + 1] != '\0' || i + 1 >= size)) {
                ++i;
                break;
            }
            classes |= bits;
            i += 2;
        }
        if (i >= size || !isQuoting(line[i])) {
            words.push_back(Word{line + start, i - start, classes & kContentBits, false});  // as it stands in the line
            continue;
        }
        // Quotes or backslashes: the word is unquoted into the letters.
        std::string& letters = words.letters();
        const std::size_t first = letters.size();
        letters.append(line + start, i - start);
        bool quoted = false;
        while (i < size && !isBlank(line[i]) && !(script && isControl(line[i]))) {
            std::size_t plain = i;
            while (plain < size && !isBlank(line[plain]) && !isQuoting(line[plain]) &&
                   !(script && isControl(line[plain]))) {
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
        const char* text = letters.data() + first;
        const std::size_t length = letters.size() - first;
        words.push_back(Word{text, length, contentOf(text, length), false});
    }
}

bool isShell(const char* executable, std::size_t size) {
    std::size_t base = size;
    while (base > 0 && executable[base - 1] != '/') {
        --base;
    }
    const char* name = executable + base;
    switch (size - base) {
        case 2: return std::memcmp(name, "sh", 2) == 0;
        case 3:
            return std::memcmp(name, "zsh", 3) == 0 || std::memcmp(name, "ksh", 3) == 0 ||
                   std::memcmp(name, "ash", 3) == 0;
        case 4: return std::memcmp(name, "bash", 4) == 0 || std::memcmp(name, "dash", 4) == 0;
        default: return false;
    }
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
// classes: of the value's own bytes. True when a placeholder or '*' was written.
bool appendValue(Output& out, const char* value, std::size_t size, unsigned classes, const Learned& learned) {
    bool placeholder = false;
    char* const folded = out.room(foldedBound(size));
    if (!(classes & kSlashBit)) {
        out.endAt(foldSegment(folded, value, size, false, classes & kMarkBits, placeholder));
        return placeholder;
    }
    const std::size_t start = out.size();
    char* const end = foldPath(folded, value, size, learned.memo, placeholder);
    out.endAt(end);
    if (learned.directories == nullptr || learned.directories->empty()) {
        return placeholder;
    }
    const std::size_t foldedSize = static_cast<std::size_t>(end - folded);
    const char* lastSlash = static_cast<const char*>(memrchr(folded, '/', foldedSize));
    if (lastSlash == nullptr || lastSlash == folded) {
        return placeholder;
    }
    std::size_t slash = static_cast<std::size_t>(lastSlash - folded);
    if (learned.directories->find(std::string_view(folded, slash)) == learned.directories->end()) {
        return placeholder;
    }
    const char* lastDot = static_cast<const char*>(memrchr(lastSlash, '.', foldedSize - slash));
    std::size_t extensionSize = lastDot != nullptr && foldedSize - static_cast<std::size_t>(lastDot - folded) <= 10
                                    ? foldedSize - static_cast<std::size_t>(lastDot - folded)
                                    : 0;
    char extension[10];
    std::memcpy(extension, folded + foldedSize - extensionSize, extensionSize);
    out.truncate(start + slash + 1);
    out.put('*');
    out.put(extension, extensionSize);
    return true;
}

// An option keeps its name; "name=value" keeps the name and folds the value.
// True when the folded argument holds a placeholder, '<' or '*'.
bool appendArgument(Output& out, const char* argument, std::size_t size, unsigned classes, const Learned& learned) {
    if (size == 0) {
        out.put("''", 2);
        return false;
    }
    const bool marked = (classes & kAngleOrStarBit) != 0;  // kept as they are
    if (!(classes & kEqualsBit)) {
        return appendValue(out, argument, size, classes, learned) || marked;
    }
    const char* equals = findByte(argument, size, '=');
    const char* slash = classes & kSlashBit ? findByte(argument, size, '/') : nullptr;
    if (equals > argument && (slash == nullptr || equals < slash)) {
        std::size_t name = static_cast<std::size_t>(equals - argument) + 1;
        bool placeholder = false;
        out.endAt(foldSegment(out.room(foldedBound(name)), argument, name, false, marksWithin(classes, argument, name),
                              placeholder));
        // Its slash, if any, lies in the value.
        const unsigned valueClasses = (classes & kSlashBit) | marksWithin(classes, argument + name, size - name);
        return appendValue(out, argument + name, size - name, valueClasses, learned) || placeholder || marked;
    }
    return appendValue(out, argument, size, classes, learned) || marked;
}

void appendScript(Output& out, const char* script, std::size_t size, const Learned& learned, int depth);

// Appends the arguments of one command from words[i], up to a control
// word when in a script; returns the index after them.
std::size_t appendArguments(Output& out, bool shell, const Words& words, std::size_t i, const Learned& learned,
                            int depth) {
    std::size_t previousStart = std::string::npos;
    std::size_t previousSize = 0;
    while (i < words.size() && !words[i].control) {
        const Word& word = words[i];
        const char* text = word.text;
        if (shell && isScriptOption(text, word.size) && i + 1 < words.size() && !words[i + 1].control &&
            depth < kMaxScriptDepth) {
            out.put(' ');
            out.put(text, word.size);
            out.put(" [", 2);
            appendScript(out, words[i + 1].text, words[i + 1].size, learned, depth + 1);
            out.put(']');
            previousStart = std::string::npos;
            i += 2;
            continue;
        }
        out.put(' ');
        std::size_t start = out.size();
        bool variable = appendArgument(out, text, word.size, word.classes, learned);
        std::size_t size = out.size() - start;
        // A list of like arguments (several uploads, several ids) is one shape.
        if (variable && previousStart != std::string::npos && previousSize == size &&
            std::memcmp(out.data() + previousStart, out.data() + start, size) == 0) {
            out.truncate(start - 1);
        } else {
            previousStart = start;
            previousSize = size;
        }
        ++i;
    }
    return i;
}

void appendScript(Output& out, const char* script, std::size_t size, const Learned& learned, int depth) {
    // The script is a word of the line around it: a copy of its own ends in a terminator.
    const std::string copy(script, size);
    Words words(size);
    splitWords(words, copy.c_str(), size, true);
    std::size_t first = out.size();
    std::size_t i = 0;
    bool redirected = false;
    auto separate = [&] {
        if (out.size() > first) {
            out.put(' ');
        }
    };
    while (i < words.size()) {
        const Word& word = words[i];
        const char* text = word.text;
        if (word.control) {
            separate();
            out.put(text, word.size);
            redirected = findByte(text, word.size, '<') != nullptr || findByte(text, word.size, '>') != nullptr;
            ++i;
            continue;
        }
        separate();
        if (redirected) {
            // A redirection's target is a file; what follows belongs to the command before it.
            appendArgument(out, text, word.size, word.classes, learned);
            redirected = false;
            i = appendArguments(out, false, words, i + 1, learned, depth);
            continue;
        }
        const char* equals = findByte(text, word.size, '=');
        if (equals != nullptr && equals > text && i + 1 < words.size() && !words[i + 1].control) {
            appendArgument(out, text, word.size, word.classes, learned);  // an assignment before the command
            ++i;
            continue;
        }
        out.put(text, word.size);
        i = appendArguments(out, isShell(text, word.size), words, i + 1, learned, depth);
    }
}

}  // namespace

void appendNormalisedCommand(std::string& out, const char* executable, std::size_t executableSize, const char* line,
                             std::size_t lineSize, const DirectorySet* directories, FeatureMemo* memo) {
    const Learned learned{directories, memo};
    Words words(lineSize);
    splitWords(words, line, lineSize, false);
    Output output(out, executableSize + foldedBound(lineSize) + 8);
    if (executableSize == 0 && words.size() > 0) {
        output.put(words[0].text, words[0].size);
        appendArguments(output, isShell(words[0].text, words[0].size), words, 1, learned, 0);
    } else {
        output.put(executable, executableSize);
        appendArguments(output, isShell(executable, executableSize), words, words.size() == 0 ? 0 : 1, learned, 0);
    }
    output.finish();
}

std::string normaliseCommand(const std::string& executable, const std::string& commandLine,
                             const DirectorySet* learned) {
    std::string out;
    appendNormalisedCommand(out, executable.data(), executable.size(), commandLine.c_str(), commandLine.size(),
                            learned);
    return out;
}

}  // namespace baseeng
