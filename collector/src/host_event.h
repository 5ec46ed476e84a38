// What a capture back-end reports: one thing a watched process did, as the
// kernel told it, before the collector adds what it knows of the process
// (path, command line, user, hashes) and turns it into a native record.
#ifndef WLC_HOST_EVENT_H
#define WLC_HOST_EVENT_H

#include <fcntl.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace wlc {

enum class EventKind : uint8_t {
    ProcessCreation,  // pid started a new program (exec); ppid is its parent
    FileCreation,
    FileModification,
    FileDeletion,
    FileRenaming,  // path: old name, path2: new name
    FileTimeChange,
    Connection,  // outbound connect
    DnsQuery,    // payload: the query as sent to port 53
    Listening,   // a socket of pid listens
    // Bookkeeping, never sent to a client:
    Fork,  // pid is a new process forked by ppid
    Exit,  // pid has ended
};

constexpr int kEventKindCount = 11;
// Kinds that reach clients come first.
constexpr int kReportedKindCount = 9;

const char* eventKindName(EventKind kind);

struct HostEvent {
    EventKind kind = EventKind::Exit;
    uint64_t timeNs = 0;        // CLOCK_REALTIME
    int32_t pid = 0;            // the acting process (thread group id)
    int32_t ppid = 0;           // ProcessCreation and Fork: the parent
    uint32_t uid = UINT32_MAX;  // real uid of the actor; UINT32_MAX: unknown

    // Files: the path as the process named it. When it is relative, dirFd
    // says what it is relative to (AT_FDCWD: the working directory).
    // ProcessCreation: the program's path.
    std::string path;
    std::string path2;
    int32_t dirFd = AT_FDCWD;

    // ProcessCreation: the arguments joined by blanks, when the back-end saw
    // them (else the collector reads /proc).
    std::string cmdline;

    // Connection and Listening. Addresses in network order, ports in host
    // order; an AF_INET address fills the first 4 bytes.
    uint8_t family = 0;    // AF_INET, AF_INET6
    uint8_t protocol = 0;  // IPPROTO_TCP, IPPROTO_UDP
    std::array<uint8_t, 16> srcAddr{};
    std::array<uint8_t, 16> dstAddr{};
    uint16_t srcPort = 0;
    uint16_t dstPort = 0;

    // DnsQuery: the bytes sent (the DNS message, without a TCP length prefix).
    std::vector<uint8_t> payload;
};

}  // namespace wlc

#endif
