// The wire unit of the IPC: a fixed header (magic, cmd, size, request id,
// host order: both ends are on this host) and size bytes of data.
#ifndef KEMIPC_FRAME_H
#define KEMIPC_FRAME_H

#include <cstdint>
#include <string>

namespace kemipc {

constexpr std::uint32_t kFrameMagic = 0x4B454D49;  // "KEMI"
constexpr std::uint32_t kMaxFrameData = 4u * 1024 * 1024;

struct FrameHeader {
    std::uint32_t magic;
    std::uint32_t cmd;
    std::uint32_t size;
    std::uint32_t request_id;
};
static_assert(sizeof(FrameHeader) == 16, "the header is four 32-bit words on every build");

struct Frame {
    std::uint32_t cmd = 0;
    std::uint32_t request_id = 0;
    std::string data;
};

// Header and data in one buffer; the caller has checked size.
std::string encode_frame(std::uint32_t cmd, std::uint32_t request_id, const void* data, std::uint32_t size);

// Cuts a byte stream into frames.
class FrameReader {
public:
    enum class Result { NeedMore, Ready, Bad };
    void feed(const char* bytes, size_t size) { m_buffer.append(bytes, size); }
    // Ready: *frame holds the next one. Bad: wrong magic or oversize data;
    // the stream can't be trusted any further.
    Result take(Frame* frame);
    // Bytes held for a frame not yet complete.
    size_t buffered() const { return m_buffer.size(); }

private:
    std::string m_buffer;
};

}  // namespace kemipc

#endif
