#include "variable_runs.h"

#include <cstring>

namespace baseeng {

namespace {

const char kNumber[] = "<n>";
const char kUuid[] = "<uuid>";
const char kTime[] = "<time>";
const char kId[] = "<id>";
const char kTemporary[] = "<tmp>";

bool isHex(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

bool digitsAt(const char* text, std::size_t size, std::size_t at, std::size_t count) {
    if (at + count > size) {
        return false;
    }
    for (std::size_t i = at; i < at + count; ++i) {
        if (!isDigit(text[i])) {
            return false;
        }
    }
    return true;
}

// 8-4-4-4-12 hexadecimal digits.
std::size_t uuidLength(const char* text, std::size_t size) {
    if (size < 36) {
        return 0;
    }
    for (std::size_t i = 0; i < 36; ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != '-' : !isHex(text[i])) {
            return 0;
        }
    }
    return size > 36 && isAlnum(text[36]) ? 0 : 36;
}

// A date with separators (2024-05-17, 2024.05.17, 2024_05_17), optionally
// followed by a time (T10:22:33, 10-22-33, 102233), fraction and zone.
// A date of bare digits is a number already.
std::size_t timestampLength(const char* text, std::size_t size) {
    if (!digitsAt(text, size, 0, 4) || (text[0] != '1' && text[0] != '2') || size < 10) {
        return 0;
    }
    char separator = text[4];
    if (separator != '-' && separator != '.' && separator != '_') {
        return 0;
    }
    if (!digitsAt(text, size, 5, 2) || text[7] != separator || !digitsAt(text, size, 8, 2)) {
        return 0;
    }
    std::size_t end = 10;
    if (end + 3 <= size && (text[end] == 'T' || text[end] == ' ' || text[end] == '_' || text[end] == '-') &&
        digitsAt(text, size, end + 1, 2)) {
        std::size_t at = end + 3;
        char timeSeparator = at < size && !isDigit(text[at]) ? text[at] : 0;
        if (timeSeparator == ':' || timeSeparator == '-' || timeSeparator == '.' || timeSeparator == 0) {
            std::size_t step = timeSeparator == 0 ? 0 : 1;
            if (digitsAt(text, size, at + step, 2)) {
                at += step + 2;
                end = at;
                if (at + step + 2 <= size && (step == 0 || text[at] == timeSeparator) &&
                    digitsAt(text, size, at + step, 2)) {
                    end = at + step + 2;
                }
            }
        }
        if (end > 10) {
            if (end + 1 < size && (text[end] == '.' || text[end] == ',') && isDigit(text[end + 1])) {
                ++end;
                while (end < size && isDigit(text[end])) {
                    ++end;
                }
            }
            if (end < size && text[end] == 'Z') {
                ++end;
            } else if (end < size && (text[end] == '+' || text[end] == '-') && digitsAt(text, size, end + 1, 2)) {
                end += 3;
                if (end < size && text[end] == ':' && digitsAt(text, size, end + 1, 2)) {
                    end += 3;
                } else if (digitsAt(text, size, end, 2)) {
                    end += 2;
                }
            }
        }
    }
    return end;
}

enum : unsigned char { kDigitBit = 1, kUpperBit = 2, kLowerBit = 4, kHexBit = 8 };

struct ByteClasses {
    unsigned char of[256] = {};
    constexpr ByteClasses() {
        for (int c = '0'; c <= '9'; ++c) of[c] = kDigitBit | kHexBit;
        for (int c = 'A'; c <= 'Z'; ++c) of[c] = kUpperBit | (c <= 'F' ? kHexBit : 0);
        for (int c = 'a'; c <= 'z'; ++c) of[c] = kLowerBit | (c <= 'f' ? kHexBit : 0);
    }
};
constexpr ByteClasses kClasses;

unsigned char classOf(char c) { return kClasses.of[static_cast<unsigned char>(c)]; }

struct RunShape {
    std::size_t digits = 0;
    std::size_t upper = 0;
    std::size_t lower = 0;
    std::size_t nonHex = 0;
    std::size_t digitLetterTurns = 0;  // a digit next to a letter
    std::size_t caseTurns = 0;         // an upper next to a lower letter
};

RunShape shapeOf(const char* text, std::size_t size) {
    RunShape shape;
    if (size == 0) {
        return shape;
    }
    unsigned char before = classOf(text[0]);
    shape.digits = before & kDigitBit;
    shape.upper = (before & kUpperBit) >> 1;
    shape.lower = (before & kLowerBit) >> 2;
    shape.nonHex = !(before & kHexBit);
    for (std::size_t i = 1; i < size; ++i) {
        unsigned char now = classOf(text[i]);
        shape.digits += now & kDigitBit;
        shape.upper += (now & kUpperBit) >> 1;
        shape.lower += (now & kLowerBit) >> 2;
        shape.nonHex += !(now & kHexBit);
        shape.digitLetterTurns += (before ^ now) & kDigitBit;
        // No byte is both upper and lower: both bits set means one of each.
        shape.caseTurns += ((before | now) & (kUpperBit | kLowerBit)) == (kUpperBit | kLowerBit);
        before = now;
    }
    return shape;
}

struct Placeholder {
    const char* text;  // null: the run keeps its letters
    std::size_t size;
};

template <std::size_t N>
Placeholder placeholder(const char (&text)[N]) {
    return Placeholder{text, N - 1};
}

// Placeholder of one run of letters and digits. any and all: its byte
// classes or-ed and and-ed, gathered while finding its end, so that only
// long runs need their whole shape.
Placeholder placeholderOf(const char* text, std::size_t size, unsigned char any, unsigned char all,
                          bool temporaryPlace) {
    if (all & kDigitBit) {
        return placeholder(kNumber);
    }
    // Hexadecimal (hashes, cache keys) is a number to the model: a short hash
    // made only of decimal digits must not look different.
    if ((all & kHexBit) && size >= 8 && (any & kDigitBit)) {
        return placeholder(kNumber);
    }
    if (size >= 16 && (any & kDigitBit)) {
        return placeholder(kId);  // what the shape below would say, without it
    }
    if (size >= 10) {
        RunShape shape = shapeOf(text, size);
        bool random = shape.digitLetterTurns >= 3 || (size >= 16 && (shape.digits > 0 || shape.caseTurns * 3 >= size));
        if (random) {
            return placeholder(kId);
        }
    }
    bool mixed = (any & kDigitBit) || ((any & kUpperBit) && (any & kLowerBit));
    if (temporaryPlace && size >= 6 && mixed) {
        return placeholder(kTemporary);
    }
    return Placeholder{nullptr, 0};
}

template <std::size_t N>
bool startsWith(const char* text, std::size_t size, const char (&prefix)[N]) {
    return size >= N - 1 && std::memcmp(text, prefix, N - 1) == 0;
}

// Length of the known prefix plus random tail of a temporary name: tmp
// (Python, mktemp "tmp.", .NET), php (PHP uploads), file (the C library's
// tmpnam and tempnam). 0 when the segment isn't one. In a temporary
// directory their tail needs no digit or capital to be random.
std::size_t temporaryNameLength(const char* text, std::size_t size, bool temporaryPlace, std::size_t& prefixLength) {
    bool tmp = startsWith(text, size, "tmp");
    if (tmp) {
        prefixLength = size > 3 && (text[3] == '.' || text[3] == '_' || text[3] == '-') ? 4 : 3;
    } else if (startsWith(text, size, "php")) {
        prefixLength = 3;
    } else if (startsWith(text, size, "file")) {
        prefixLength = 4;
    } else {
        return 0;
    }
    std::size_t end = prefixLength;
    bool marked = false;  // a digit or capital: random, not a word
    while (end < size && (isAlnum(text[end]) || text[end] == '_')) {
        marked = marked || isDigit(text[end]) || isUpper(text[end]);
        ++end;
    }
    std::size_t tail = end - prefixLength;
    if (end < size && text[end] != '.') {
        return 0;
    }
    bool fits = tmp ? tail >= 4 && tail <= 16 && (marked || tail >= 8) : tail == 6 && (marked || temporaryPlace);
    return fits ? end : 0;
}

// The random tail that mkstemp-like calls leave before the extension, after
// the application's prefix and a separator: 6 letters and digits (the C
// library, PHP, Node) or 8 of letters, digits and underscores (Python).
// Returns its start, or size when there is none.
std::size_t randomTailStart(const char* text, std::size_t size, std::size_t& tailEnd) {
    std::size_t stemEnd = size;
    for (std::size_t i = size; i > 0 && size - i <= 5; --i) {
        if (text[i - 1] == '.') {
            stemEnd = i < size ? i - 1 : size;
            break;
        }
        if (!isAlnum(text[i - 1])) {
            break;
        }
    }
    // The tail, of 6 or 8, follows a separator at 1 or more: most names have none there.
    auto separatorAt = [&](std::size_t tail) {
        if (stemEnd < tail + 2) {
            return false;
        }
        char c = text[stemEnd - tail - 1];
        return c == '-' || c == '.' || c == '_';
    };
    if (!separatorAt(6) && !separatorAt(8)) {
        return size;
    }
    std::size_t start = stemEnd;
    bool underscore = false;
    while (start > 0 && (isAlnum(text[start - 1]) || text[start - 1] == '_')) {
        underscore = underscore || text[start - 1] == '_';
        --start;
        if (stemEnd - start > 8 && !underscore) {
            return size;  // more than 8 letters and digits: no tail, with or without underscores further on
        }
    }
    if (underscore && (stemEnd - start != 8 || start < 2 || (text[start - 1] != '-' && text[start - 1] != '.'))) {
        // Not Python's: the tail is what follows the last underscore.
        start = stemEnd;
        while (start > 0 && isAlnum(text[start - 1])) {
            --start;
        }
    }
    std::size_t length = stemEnd - start;
    if ((length != 6 && length != 8) || start < 2 ||
        (text[start - 1] != '-' && text[start - 1] != '.' && text[start - 1] != '_')) {
        return size;
    }
    RunShape shape = shapeOf(text + start, length);
    bool letters = shape.upper + shape.lower > 0;
    bool random = (shape.digits > 0 && letters) || (shape.upper > 0 && shape.lower > 0) ||
                  (length == 8 && letters && std::memchr(text + start, '_', length) != nullptr);
    if (!random) {
        return size;
    }
    tailEnd = stemEnd;
    return start;
}

bool startsLikeTemporaryName(const char* text, std::size_t size) {
    return startsWith(text, size, "tmp") || startsWith(text, size, "php") || startsWith(text, size, "file");
}

}  // namespace

bool isTemporaryDirectory(const char* text, std::size_t size) {
    if (size == 3) {
        return std::memcmp(text, "tmp", 3) == 0 || std::memcmp(text, "shm", 3) == 0;
    }
    return size == 4 &&
           (lowered(text[0]) == 't' && lowered(text[1]) == 'e' && lowered(text[2]) == 'm' && lowered(text[3]) == 'p');
}

char* foldSegment(char* out, const char* text, std::size_t size, bool temporaryPlace, unsigned marks,
                  bool& placeholder) {
    // Most segments are plain lowercase words: nothing in them can vary.
    if (!(marks & (kMarkDigit | kMarkUpper)) && !temporaryPlace && !startsLikeTemporaryName(text, size)) {
        std::size_t unused;
        if (!(marks & kMarkUnderscore) || size < 8 || randomTailStart(text, size, unused) == size) {
            std::memcpy(out, text, size);
            return out + size;
        }
    }
    std::size_t i = 0;
    std::size_t prefixLength = 0;
    std::size_t tailEnd = size;
    std::size_t tailStart = size;
    if (std::size_t temporary = temporaryNameLength(text, size, temporaryPlace, prefixLength)) {
        std::memcpy(out, text, prefixLength);
        out += prefixLength;
        std::memcpy(out, kTemporary, sizeof kTemporary - 1);
        out += sizeof kTemporary - 1;
        placeholder = true;
        i = temporary;
    } else if (size >= 8) {
        tailStart = randomTailStart(text, size, tailEnd);
    }
    // Kept text is copied in one piece when a placeholder comes and at the
    // end: most of a segment is kept.
    std::size_t kept = i;
    auto replace = [&](std::size_t from, const char* placeholderText, std::size_t placeholderSize, std::size_t to) {
        std::memcpy(out, text + kept, from - kept);
        out += from - kept;
        std::memcpy(out, placeholderText, placeholderSize);
        out += placeholderSize;
        placeholder = true;
        kept = to;
    };
    while (i < size) {
        if (i == tailStart) {
            replace(i, kTemporary, sizeof kTemporary - 1, tailEnd);
            i = tailEnd;
            continue;
        }
        if (!isAlnum(text[i])) {
            while (i < size && !isAlnum(text[i])) {
                ++i;
            }
            continue;
        }
        if (std::size_t length = uuidLength(text + i, size - i)) {
            replace(i, kUuid, sizeof kUuid - 1, i + length);
            i += length;
            continue;
        }
        if (std::size_t length = timestampLength(text + i, size - i)) {
            replace(i, kTime, sizeof kTime - 1, i + length);
            i += length;
            continue;
        }
        std::size_t end = i;
        unsigned char any = 0;
        unsigned char all = 0xff;
        while (end < size && isAlnum(text[end])) {
            unsigned char bits = classOf(text[end++]);
            any |= bits;
            all &= bits;
        }
        Placeholder found = placeholderOf(text + i, end - i, any, all, temporaryPlace);
        if (found.text != nullptr) {
            replace(i, found.text, found.size, end);
        } else if (any & kDigitBit) {
            // Letters kept, each digit run a number.
            for (std::size_t k = i; k < end;) {
                if (!isDigit(text[k])) {
                    ++k;
                    continue;
                }
                std::size_t digits = k;
                while (digits < end && isDigit(text[digits])) {
                    ++digits;
                }
                replace(k, kNumber, sizeof kNumber - 1, digits);
                k = digits;
            }
        }
        i = end;
    }
    std::memcpy(out, text + kept, size - kept);
    return out + (size - kept);
}

void appendFoldedSegment(std::string& out, const char* text, std::size_t size, bool temporaryPlace) {
    const std::size_t start = out.size();
    out.resize(start + foldedBound(size));
    bool placeholder = false;
    char* end = foldSegment(&out[start], text, size, temporaryPlace, marksOf(text, size), placeholder);
    out.resize(static_cast<std::size_t>(end - out.data()));
}

}  // namespace baseeng
