// Text of the event records: one 32-bit element per byte, sign-extended.
#ifndef BASEENG_WIDE_TEXT_H
#define BASEENG_WIDE_TEXT_H

#include <cstddef>
#include <string>
#include <wchar.h>

namespace baseeng {

// Low 8 bits of count elements; no terminator is looked for.
inline void narrowRun(char* out, const wchar_t* field, std::size_t count) {
    // A counted loop with no early exit: the compiler packs it into vector
    // instructions, where stopping at the terminator byte by byte cannot.
    for (std::size_t i = 0; i < count; ++i) {
        out[i] = static_cast<char>(static_cast<unsigned>(field[i]) & 0xffu);
    }
}

// Low 8 bits of each element up to the terminator, never past capacity.
std::string narrowText(const wchar_t* field, std::size_t capacity);

// Stores at most capacity - 1 bytes and always terminates.
void writeWide(wchar_t* field, std::size_t capacity, const std::string& text);

template <std::size_t N>
std::string narrowText(const wchar_t (&field)[N]) {
    return narrowText(field, N);
}

// Narrows into a buffer of the field's capacity; the length, never past it.
template <std::size_t N>
std::size_t narrowInto(char (&buffer)[N], const wchar_t (&field)[N]) {
    std::size_t size = wcsnlen(field, N);
    narrowRun(buffer, field, size);
    return size;
}

template <std::size_t N>
void writeWide(wchar_t (&field)[N], const std::string& text) {
    writeWide(field, N, text);
}

}  // namespace baseeng

#endif
