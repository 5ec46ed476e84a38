// A client of the collector's socket for tests: frames out, frames in with a
// deadline.
#ifndef WLC_TEST_WIRE_CLIENT_H
#define WLC_TEST_WIRE_CLIENT_H

#include <cstdint>
#include <string>
#include <vector>

#include "wl_unique_fd.h"
#include "vrccl_wire.h"

class WireClient {
public:
    // Tries for up to retryMs while nothing listens yet.
    explicit WireClient(const std::string& path, int retryMs = 0);
    bool connected() const { return m_fd.valid(); }

    // announced: the length the head claims, when it is not the body's.
    void send(uint16_t kind, const void* body, uint32_t length, uint32_t magic = VRCCL_MAGIC, int64_t announced = -1);
    void subscribe(int32_t action, int32_t pid);
    // The next frame's kind and body; kind 0 at end of stream or time-out.
    uint16_t next(std::vector<uint8_t>& body, int timeoutMs = 3000);
    // The payload of the next record of a sub_type; empty by the deadline.
    std::vector<uint8_t> record(uint32_t subType, int timeoutMs = 10000);

private:
    bool readExactly(void* out, std::size_t size, int timeoutMs);

    wl::UniqueFd m_fd;
};

#endif
