// Decides which sockets of watched processes to report, from successive
// sock_diag snapshots: each socket once, outbound connections only.
#ifndef WLC_PORTABLE_SOCKET_TRACKER_H
#define WLC_PORTABLE_SOCKET_TRACKER_H

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "host_event.h"
#include "portable/inet_diag_decode.h"

namespace wlc::portable {

class SocketTracker {
public:
    // sockets: one snapshot, with the host's listening sockets in it (to
    // tell accepted connections from outbound ones). owners: socket inode ->
    // the watched process holding it. Appends what is new to out.
    void update(const std::vector<DiagSocket>& sockets, const std::unordered_map<uint64_t, int32_t>& owners,
                std::vector<HostEvent>& out);
    void clear() { settled_.clear(); }
    std::size_t remembered() const { return settled_.size(); }

private:
    // Inodes already reported or known not to need it; a socket that is
    // gone is forgotten.
    std::unordered_set<uint64_t> settled_;
};

}  // namespace wlc::portable

#endif
