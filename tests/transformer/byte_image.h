// Hand-placed bytes: the expected records and the native inputs of the
// conversion tests are written at literal offsets, independent of the structs.
#ifndef WL_TEST_BYTE_IMAGE_H
#define WL_TEST_BYTE_IMAGE_H

#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "event_info.h"

class ByteImage {
public:
    explicit ByteImage(std::size_t size) : m_bytes(size, 0) {}

    unsigned char* data() { return m_bytes.data(); }
    const unsigned char* data() const { return m_bytes.data(); }
    std::size_t size() const { return m_bytes.size(); }

    template <typename T>
    T& as() {
        return *reinterpret_cast<T*>(m_bytes.data());
    }

    template <typename T>
    void putAt(std::size_t offset, T value) {
        put(offset, &value, sizeof(value));
    }
    void putNarrow(std::size_t offset, const std::string& text) { put(offset, text.c_str(), text.size() + 1); }
    // A stored text: each byte sign-extended to a wide element.
    void putWideChars(std::size_t offset, const std::string& text) {
        for (std::size_t i = 0; i < text.size(); ++i) {
            const int32_t element = static_cast<signed char>(text[i]);
            put(offset + 4 * i, &element, sizeof(element));
        }
    }

private:
    void put(std::size_t offset, const void* bytes, std::size_t count) {
        if (offset + count > m_bytes.size()) throw std::out_of_range("ByteImage: write past the end");
        std::memcpy(m_bytes.data() + offset, bytes, count);
    }
    std::vector<unsigned char> m_bytes;
};

constexpr std::size_t kRecordSize = 66732;

// 64-bit record fields sit on 4-byte boundaries: read them by value.
inline uint64_t u64(wl_u64 value) { return value; }

#endif
