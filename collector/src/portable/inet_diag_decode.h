// Replies of a sock_diag dump of internet sockets (inet_diag_msg), decoded
// from the bytes received.
#ifndef WLC_PORTABLE_INET_DIAG_DECODE_H
#define WLC_PORTABLE_INET_DIAG_DECODE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace wlc::portable {

struct DiagSocket {
    uint8_t family = 0;             // AF_INET, AF_INET6
    uint8_t protocol = 0;           // IPPROTO_TCP, IPPROTO_UDP (the request's: replies do not say)
    uint8_t state = 0;              // TCP_* numbering, for UDP too
    std::array<uint8_t, 16> src{};  // network order; AF_INET fills 4 bytes
    std::array<uint8_t, 16> dst{};
    uint16_t srcPort = 0;  // host order
    uint16_t dstPort = 0;
    uint32_t uid = 0;
    uint64_t inode = 0;
};

enum class DumpStatus { More, Done, Failed };

// One datagram of the reply. Failed: the kernel refused (error says why)
// or the bytes made no sense (error is 0).
DumpStatus decodeDiagDatagram(const uint8_t* data, std::size_t size, uint8_t protocol, std::vector<DiagSocket>& out,
                              int& error);

}  // namespace wlc::portable

#endif
