// A hash of short texts for the library's own tables (the memo of folded
// texts, the learned features): a machine word at a time, a rotation, an xor
// and a multiplication each, with a final mix. Several times cheaper than
// std::hash on the texts of every event, and never stored: model files and
// their names use their own hash.
#ifndef BASEENG_TEXT_HASH_H
#define BASEENG_TEXT_HASH_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace baseeng {

namespace detail {

using HashWord = std::size_t;
constexpr HashWord kHashFactor = sizeof(HashWord) == 8 ? static_cast<HashWord>(0x9e3779b97f4a7c15ull) : 0x9e3779b9u;
constexpr unsigned kHashHalf = sizeof(HashWord) * 4;

inline HashWord loadWord(const char* at) {
    HashWord word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

inline std::uint32_t load32(const char* at) {
    std::uint32_t word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

inline HashWord hashStep(HashWord hash, HashWord word) {
    return ((hash << 5 | hash >> (sizeof(HashWord) * 8 - 5)) ^ word) * kHashFactor;
}

// Up to one word of the text's end, 0 < size <= sizeof(HashWord), without
// reading past it.
inline HashWord tailWord(const char* text, std::size_t size) {
    if (sizeof(HashWord) == 8 && size >= 4) {
        return static_cast<HashWord>(load32(text)) |
               static_cast<HashWord>(static_cast<std::uint64_t>(load32(text + size - 4)) << (kHashHalf % 64));
    }
    HashWord word = static_cast<unsigned char>(text[0]);
    word |= static_cast<HashWord>(static_cast<unsigned char>(text[size / 2])) << 8;
    word |= static_cast<HashWord>(static_cast<unsigned char>(text[size - 1])) << 16;
    if (sizeof(HashWord) == 4 && size == 4) {
        word = load32(text);
    }
    return word;
}

}  // namespace detail

inline std::size_t hashText(const char* text, std::size_t size) {
    using detail::HashWord;
    HashWord hash = static_cast<HashWord>(size) * detail::kHashFactor;
    const char* at = text;
    if (size > sizeof(HashWord)) {
        const char* const last = text + size - sizeof(HashWord);  // the last word, overlapping when it must
        for (; at < last; at += sizeof(HashWord)) {
            hash = detail::hashStep(hash, detail::loadWord(at));
        }
        hash = detail::hashStep(hash, detail::loadWord(last));
    } else if (size > 0) {
        hash = detail::hashStep(hash, detail::tailWord(text, size));
    }
    hash ^= hash >> detail::kHashHalf;
    hash *= detail::kHashFactor;
    hash ^= hash >> detail::kHashHalf;
    return hash;
}

// For the standard containers. Deliberately not noexcept: libstdc++ then
// keeps each element's hash, so that a look-up compares texts only when
// their hashes agree and a rehash hashes nothing again.
struct TextHash {
    std::size_t operator()(const std::string& text) const { return hashText(text.data(), text.size()); }
    std::size_t operator()(std::string_view text) const { return hashText(text.data(), text.size()); }
};

}  // namespace baseeng

#endif
