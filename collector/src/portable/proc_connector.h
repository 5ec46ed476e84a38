// The kernel's process-event connector (netlink): forks, execs and exits of
// every process, turned into watch-set changes and events of watched ones.
#ifndef WLC_PORTABLE_PROC_CONNECTOR_H
#define WLC_PORTABLE_PROC_CONNECTOR_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "host_event.h"
#include "wl_unique_fd.h"
#include "portable/watch_set.h"

namespace wlc::portable {

struct ProcEvent {
    enum class Type : uint8_t { Fork, Exec, Exit, Ack, Other };
    Type type = Type::Other;
    int32_t pid = 0;   // the thread
    int32_t tgid = 0;  // its process
    int32_t parentPid = 0;
    int32_t parentTgid = 0;
    uint32_t ack = 0;  // Ack: the request's acknowledgement number plus one
    uint32_t ackError = 0;
};

// One datagram from the connector (it may pack several netlink messages).
// Parts that are cut short or not process events are counted in malformed.
std::vector<ProcEvent> decodeProcDatagram(const uint8_t* data, std::size_t size, std::size_t& malformed);

// Forks and execs change the watch set at once and add to out. Exits of
// watched processes are only queued in pendingExits: events the process
// caused before it ended may still wait in other queues, and they must find
// it watched. applyExits then removes them.
void applyProcEvent(const ProcEvent& event, WatchSet& watched, std::vector<HostEvent>& out,
                    std::vector<int32_t>& pendingExits);
void applyExits(std::vector<int32_t>& pendingExits, WatchSet& watched, std::vector<HostEvent>& out);

class ProcConnector {
public:
    enum class Read { Data, Empty, Overflow, Failed };

    ProcConnector() = default;
    ~ProcConnector();
    ProcConnector(const ProcConnector&) = delete;
    ProcConnector& operator=(const ProcConnector&) = delete;

    // Subscribes and waits for the kernel to confirm.
    bool open(std::string& error);
    int fd() const { return socket_.get(); }
    // One datagram, without blocking. Overflow: the kernel dropped events.
    Read readOne(std::vector<ProcEvent>& out, std::size_t& malformed);

private:
    bool sendControl(uint32_t op, uint32_t nonce);

    wl::UniqueFd socket_;
    bool listening_ = false;
};

}  // namespace wlc::portable

#endif
