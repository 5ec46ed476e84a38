#include "frame.h"

#include <cstring>

namespace kemipc {

std::string encode_frame(std::uint32_t cmd, std::uint32_t request_id, const void* data, std::uint32_t size) {
    FrameHeader header{kFrameMagic, cmd, size, request_id};
    std::string out(sizeof(header) + size, '\0');
    std::memcpy(&out[0], &header, sizeof(header));
    if (size > 0) std::memcpy(&out[sizeof(header)], data, size);
    return out;
}

FrameReader::Result FrameReader::take(Frame* frame) {
    if (m_buffer.size() < sizeof(FrameHeader)) return Result::NeedMore;
    FrameHeader header;
    std::memcpy(&header, m_buffer.data(), sizeof(header));
    if (header.magic != kFrameMagic || header.size > kMaxFrameData) return Result::Bad;
    if (m_buffer.size() < sizeof(header) + header.size) return Result::NeedMore;
    frame->cmd = header.cmd;
    frame->request_id = header.request_id;
    frame->data.assign(m_buffer, sizeof(header), header.size);
    m_buffer.erase(0, sizeof(header) + header.size);
    return Result::Ready;
}

}  // namespace kemipc
