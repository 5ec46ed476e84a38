#include "dns_query.h"

namespace wlc {
namespace {

constexpr std::size_t kHeaderSize = 12;
constexpr std::size_t kMaxNameLength = 253;
constexpr uint8_t kResponseBit = 0x80;

uint16_t readBigEndian16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

bool printableLabelByte(uint8_t c) { return c > 0x20 && c < 0x7f && c != '.'; }

}  // namespace

std::optional<std::string> parseDnsQueryName(const uint8_t* data, std::size_t size) {
    if (data == nullptr || size < kHeaderSize + 1) return std::nullopt;
    if (data[2] & kResponseBit) return std::nullopt;
    if (readBigEndian16(data + 4) == 0) return std::nullopt;  // no question

    std::string name;
    std::size_t at = kHeaderSize;
    while (true) {
        if (at >= size) return std::nullopt;
        uint8_t length = data[at++];
        if (length == 0) break;
        if (length > 63) return std::nullopt;  // a pointer has no place in a query's first name
        if (at + length > size) return std::nullopt;
        if (!name.empty()) name += '.';
        for (std::size_t i = 0; i < length; ++i) {
            uint8_t c = data[at + i];
            if (!printableLabelByte(c)) return std::nullopt;
            name += static_cast<char>(c);
        }
        if (name.size() > kMaxNameLength) return std::nullopt;
        at += length;
    }
    if (name.empty()) return std::string(".");
    return name;
}

}  // namespace wlc
