#include "portable/socket_tracker.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>

#include "portable/proc_info.h"

namespace wlc::portable {
namespace {

enum class Verdict { Listening, Connection, Settled, NotYet };

bool isZero(const std::array<uint8_t, 16>& address) {
    return std::all_of(address.begin(), address.end(), [](uint8_t b) { return b == 0; });
}

bool connectedTcpState(uint8_t state) {
    switch (state) {
        case TCP_ESTABLISHED:
        case TCP_SYN_SENT:
        case TCP_FIN_WAIT1:
        case TCP_FIN_WAIT2:
        case TCP_CLOSE_WAIT:
        case TCP_LAST_ACK:
        case TCP_CLOSING: return true;
        default: return false;
    }
}

bool accepted(const DiagSocket& socket, const std::vector<const DiagSocket*>& listeners) {
    return std::any_of(listeners.begin(), listeners.end(), [&](const DiagSocket* listener) {
        return listener->srcPort == socket.srcPort &&
               (isZero(listener->src) || (listener->family == socket.family && listener->src == socket.src));
    });
}

Verdict judge(const DiagSocket& socket, const std::vector<const DiagSocket*>& listeners) {
    if (socket.protocol == IPPROTO_TCP) {
        if (socket.state == TCP_LISTEN) return Verdict::Listening;
        if (!connectedTcpState(socket.state)) return Verdict::NotYet;
        return accepted(socket, listeners) ? Verdict::Settled : Verdict::Connection;
    }
    if (socket.protocol == IPPROTO_UDP) return socket.dstPort != 0 ? Verdict::Connection : Verdict::NotYet;
    return Verdict::Settled;
}

HostEvent netEvent(EventKind kind, int32_t pid, const DiagSocket& socket) {
    HostEvent event;
    event.kind = kind;
    event.timeNs = realtimeNs();
    event.pid = pid;
    event.uid = socket.uid;
    event.family = socket.family;
    event.protocol = socket.protocol;
    event.srcAddr = socket.src;
    event.srcPort = socket.srcPort;
    // A listening socket has no peer: its own address stands on both sides,
    // since the record names the listened port as its destination.
    event.dstAddr = kind == EventKind::Connection ? socket.dst : socket.src;
    event.dstPort = kind == EventKind::Connection ? socket.dstPort : socket.srcPort;
    return event;
}

}  // namespace

void SocketTracker::update(const std::vector<DiagSocket>& sockets, const std::unordered_map<uint64_t, int32_t>& owners,
                           std::vector<HostEvent>& out) {
    std::vector<const DiagSocket*> listeners;
    for (const DiagSocket& socket : sockets) {
        if (socket.protocol == IPPROTO_TCP && socket.state == TCP_LISTEN) listeners.push_back(&socket);
    }

    std::unordered_set<uint64_t> present;
    for (const DiagSocket& socket : sockets) {
        auto owner = socket.inode == 0 ? owners.end() : owners.find(socket.inode);
        if (owner == owners.end()) continue;
        present.insert(socket.inode);
        if (settled_.count(socket.inode)) continue;
        switch (judge(socket, listeners)) {
            case Verdict::Listening:
                out.push_back(netEvent(EventKind::Listening, owner->second, socket));
                settled_.insert(socket.inode);
                break;
            case Verdict::Connection:
                out.push_back(netEvent(EventKind::Connection, owner->second, socket));
                settled_.insert(socket.inode);
                break;
            case Verdict::Settled: settled_.insert(socket.inode); break;
            case Verdict::NotYet: break;
        }
    }
    for (auto it = settled_.begin(); it != settled_.end();) {
        it = present.count(*it) ? std::next(it) : settled_.erase(it);
    }
}

}  // namespace wlc::portable
