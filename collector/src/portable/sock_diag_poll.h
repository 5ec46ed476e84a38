// Connections and listening ports of watched processes, found by asking
// sock_diag for the host's internet sockets and keeping those whose inode a
// watched process holds.
#ifndef WLC_PORTABLE_SOCK_DIAG_POLL_H
#define WLC_PORTABLE_SOCK_DIAG_POLL_H

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "host_event.h"
#include "portable/inet_diag_decode.h"
#include "portable/socket_tracker.h"
#include "wl_unique_fd.h"
#include "portable/watch_set.h"

namespace wlc::portable {

// Socket inodes among a process's open files, at most budget links read
// (budget is decreased). False when the budget ran out first.
bool collectSocketInodes(int32_t pid, std::size_t& budget, std::unordered_map<uint64_t, int32_t>& owners);

class SockDiagPoll {
public:
    static constexpr std::size_t kFdBudget = 65536;      // links read per round
    static constexpr std::size_t kSnapshotMax = 262144;  // sockets kept per round

    SockDiagPoll();
    SockDiagPoll(const SockDiagPoll&) = delete;
    SockDiagPoll& operator=(const SockDiagPoll&) = delete;

    // False when sock_diag cannot be asked at all; kinds of sockets it
    // cannot list are only noted.
    bool open(std::string& reason);
    // One round over the watched processes.
    void pollOnce(const WatchSet& watched, std::vector<HostEvent>& out);

    uint64_t takeLost();
    std::string notes() const;

private:
    struct Table {
        uint8_t family;
        uint8_t protocol;
        const char* name;
        bool usable = true;
    };

    bool dump(const Table& table, std::vector<DiagSocket>& into, const std::unordered_map<uint64_t, int32_t>& owners,
              int& error);

    wl::UniqueFd socket_;
    std::vector<Table> tables_;
    std::vector<uint8_t> buffer_;
    SocketTracker tracker_;
    uint32_t seq_ = 0;
    uint64_t lost_ = 0;
    mutable std::mutex notesMutex_;
    std::string notes_;
};

}  // namespace wlc::portable

#endif
