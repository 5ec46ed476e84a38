// Whole reads and writes of frames on the collector's socket, each bounded
// by a deadline and interruptible through a stop descriptor.
#ifndef VRCCL_FRAME_IO_H
#define VRCCL_FRAME_IO_H

#include <cstddef>
#include <cstdint>

#include "vrccl_wire.h"

namespace vrccl {

enum class IoStatus { Ok, Closed, Timeout, Stopped, Error };

const char* describe(IoStatus status);

// timeoutMs < 0 waits without a deadline; stopFd < 0 means none.
IoStatus readFully(int fd, void* buf, std::size_t size, int stopFd, int timeoutMs);
IoStatus writeFully(int fd, const void* buf, std::size_t size, int timeoutMs);
// Reads and discards size bytes.
IoStatus skipBytes(int fd, std::size_t size, int stopFd, int timeoutMs);

// Head and body in one write, so that concurrent writers cannot interleave.
IoStatus sendFrame(int fd, uint16_t kind, const void* body, uint32_t length, int timeoutMs);

// Null when the head is acceptable, else what is wrong with it.
const char* headProblem(const vrccl_frame_head& head);

}  // namespace vrccl

#endif
