#include "portable/proc_connector.h"

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "portable/proc_info.h"

namespace wlc::portable {
namespace {

constexpr int kReceiveBuffer = 8 * 1024 * 1024;
constexpr int kAckWaitMs = 1000;
constexpr std::size_t kDatagramMax = 16384;
constexpr std::size_t kEventHead = offsetof(proc_event, event_data);

template <typename Member>
bool holds(std::size_t length) {
    return length >= kEventHead + sizeof(Member);
}

ProcEvent decodeEvent(const proc_event& raw, std::size_t length, uint32_t ack, bool& ok) {
    ProcEvent event;
    ok = true;
    switch (raw.what) {
        case proc_event::PROC_EVENT_FORK:
            ok = holds<decltype(proc_event::event_data.fork)>(length);
            event.type = ProcEvent::Type::Fork;
            event.parentPid = raw.event_data.fork.parent_pid;
            event.parentTgid = raw.event_data.fork.parent_tgid;
            event.pid = raw.event_data.fork.child_pid;
            event.tgid = raw.event_data.fork.child_tgid;
            break;
        case proc_event::PROC_EVENT_EXEC:
            ok = holds<decltype(proc_event::event_data.exec)>(length);
            event.type = ProcEvent::Type::Exec;
            event.pid = raw.event_data.exec.process_pid;
            event.tgid = raw.event_data.exec.process_tgid;
            break;
        case proc_event::PROC_EVENT_EXIT:
            ok = length >= kEventHead + 2 * sizeof(__kernel_pid_t);
            event.type = ProcEvent::Type::Exit;
            event.pid = raw.event_data.exit.process_pid;
            event.tgid = raw.event_data.exit.process_tgid;
            break;
        case proc_event::PROC_EVENT_NONE:
            ok = length >= kEventHead + sizeof(uint32_t);
            event.type = ProcEvent::Type::Ack;
            event.ack = ack;
            event.ackError = raw.event_data.ack.err;
            break;
        default: ok = length >= kEventHead; break;
    }
    return event;
}

void emit(std::vector<HostEvent>& out, EventKind kind, int32_t pid, int32_t ppid) {
    HostEvent event;
    event.kind = kind;
    event.timeNs = realtimeNs();
    event.pid = pid;
    event.ppid = ppid;
    out.push_back(std::move(event));
}

}  // namespace

std::vector<ProcEvent> decodeProcDatagram(const uint8_t* data, std::size_t size, std::size_t& malformed) {
    std::vector<ProcEvent> events;
    std::size_t at = 0;
    while (size - at >= sizeof(nlmsghdr)) {
        nlmsghdr head;
        std::memcpy(&head, data + at, sizeof(head));
        if (head.nlmsg_len < sizeof(nlmsghdr) || head.nlmsg_len > size - at) {
            ++malformed;
            return events;
        }
        std::size_t payload = head.nlmsg_len - NLMSG_HDRLEN;
        const uint8_t* body = data + at + NLMSG_HDRLEN;
        if (head.nlmsg_type == NLMSG_ERROR || (head.nlmsg_type != NLMSG_NOOP && payload < sizeof(cn_msg))) {
            ++malformed;
        } else if (head.nlmsg_type != NLMSG_NOOP) {
            cn_msg message;
            std::memcpy(&message, body, sizeof(message));
            if (message.id.idx != CN_IDX_PROC || message.id.val != CN_VAL_PROC ||
                message.len > payload - sizeof(cn_msg)) {
                ++malformed;
            } else {
                proc_event raw;
                std::memset(&raw, 0, sizeof(raw));
                std::memcpy(&raw, body + sizeof(cn_msg), std::min<std::size_t>(message.len, sizeof(raw)));
                bool ok = false;
                ProcEvent event = decodeEvent(raw, message.len, message.ack, ok);
                if (ok) {
                    events.push_back(event);
                } else {
                    ++malformed;
                }
            }
        }
        std::size_t step = NLMSG_ALIGN(head.nlmsg_len);
        if (step >= size - at) break;
        at += step;
    }
    if (at == 0 && size != 0 && size < sizeof(nlmsghdr)) ++malformed;
    return events;
}

void applyProcEvent(const ProcEvent& event, WatchSet& watched, std::vector<HostEvent>& out,
                    std::vector<int32_t>& pendingExits) {
    switch (event.type) {
        case ProcEvent::Type::Fork: {
            if (event.tgid == event.parentTgid) return;  // a new thread, not a process
            auto reused = std::find(pendingExits.begin(), pendingExits.end(), event.tgid);
            if (reused != pendingExits.end()) {
                // The pid ended and was already handed out again: settle the old one first.
                pendingExits.erase(reused);
                if (watched.onExit(event.tgid)) emit(out, EventKind::Exit, event.tgid, 0);
            }
            if (watched.onFork(event.parentTgid, event.tgid)) emit(out, EventKind::Fork, event.tgid, event.parentTgid);
            return;
        }
        case ProcEvent::Type::Exec: {
            if (!watched.isWatched(event.tgid)) return;
            ProcessFacts facts = readProcessFacts(event.tgid);
            HostEvent created;
            created.kind = EventKind::ProcessCreation;
            created.timeNs = realtimeNs();
            created.pid = event.tgid;
            created.ppid = facts.ppid;
            created.uid = facts.uid;
            created.path = std::move(facts.exe);
            created.cmdline = std::move(facts.cmdline);
            out.push_back(std::move(created));
            return;
        }
        case ProcEvent::Type::Exit:
            if (event.pid != event.tgid || !watched.isWatched(event.tgid)) return;
            if (std::find(pendingExits.begin(), pendingExits.end(), event.tgid) == pendingExits.end()) {
                pendingExits.push_back(event.tgid);
            }
            return;
        case ProcEvent::Type::Ack:
        case ProcEvent::Type::Other: return;
    }
}

void applyExits(std::vector<int32_t>& pendingExits, WatchSet& watched, std::vector<HostEvent>& out) {
    for (int32_t pid : pendingExits) {
        if (watched.onExit(pid)) emit(out, EventKind::Exit, pid, 0);
    }
    pendingExits.clear();
}

ProcConnector::~ProcConnector() {
    // The kernel counts listeners and keeps producing events until told.
    if (listening_) sendControl(PROC_CN_MCAST_IGNORE, 0);
}

bool ProcConnector::open(std::string& error) {
    socket_.reset(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_CONNECTOR));
    if (!socket_.valid()) {
        error = std::string("proc connector: socket: ") + std::strerror(errno);
        return false;
    }
    int size = kReceiveBuffer;
    if (::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) != 0) {
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    }
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = CN_IDX_PROC;
    if (::bind(socket_.get(), reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0) {
        error = std::string("proc connector: bind: ") + std::strerror(errno);
        socket_.reset();
        return false;
    }
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint32_t nonce = static_cast<uint32_t>(now.tv_nsec) | 1u;
    if (!sendControl(PROC_CN_MCAST_LISTEN, nonce)) {
        error = std::string("proc connector: subscribe: ") + std::strerror(errno);
        socket_.reset();
        return false;
    }
    listening_ = true;

    // Unprivileged, the kernel answers nothing at all, or refuses.
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += kAckWaitMs / 1000;
    while (true) {
        clock_gettime(CLOCK_MONOTONIC, &now);
        long leftMs = (deadline.tv_sec - now.tv_sec) * 1000 + (deadline.tv_nsec - now.tv_nsec) / 1000000;
        if (leftMs <= 0) break;
        pollfd waiting{socket_.get(), POLLIN, 0};
        if (::poll(&waiting, 1, static_cast<int>(leftMs)) <= 0) continue;
        std::vector<ProcEvent> events;
        std::size_t malformed = 0;
        if (readOne(events, malformed) == Read::Failed) break;
        for (const ProcEvent& event : events) {
            if (event.type != ProcEvent::Type::Ack || event.ack != nonce + 1) continue;
            if (event.ackError == 0) return true;
            error =
                std::string("proc connector: subscription refused: ") + std::strerror(static_cast<int>(event.ackError));
            socket_.reset();
            listening_ = false;
            return false;
        }
    }
    error = "proc connector: the kernel did not confirm the subscription (CAP_NET_ADMIN needed)";
    sendControl(PROC_CN_MCAST_IGNORE, 0);
    socket_.reset();
    listening_ = false;
    return false;
}

ProcConnector::Read ProcConnector::readOne(std::vector<ProcEvent>& out, std::size_t& malformed) {
    alignas(nlmsghdr) uint8_t buffer[kDatagramMax];
    sockaddr_nl from{};
    socklen_t fromLength = sizeof(from);
    ssize_t got = ::recvfrom(socket_.get(), buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (got < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return Read::Empty;
        if (errno == ENOBUFS) return Read::Overflow;
        return Read::Failed;
    }
    if (from.nl_pid != 0) {  // only the kernel speaks here
        ++malformed;
        return Read::Data;
    }
    auto events = decodeProcDatagram(buffer, static_cast<std::size_t>(got), malformed);
    out.insert(out.end(), events.begin(), events.end());
    return Read::Data;
}

bool ProcConnector::sendControl(uint32_t op, uint32_t nonce) {
    constexpr std::size_t kSize = NLMSG_HDRLEN + sizeof(cn_msg) + sizeof(uint32_t);
    alignas(nlmsghdr) uint8_t request[kSize] = {};
    nlmsghdr head{};
    head.nlmsg_len = kSize;
    head.nlmsg_type = NLMSG_DONE;
    head.nlmsg_seq = nonce;
    cn_msg message{};
    message.id.idx = CN_IDX_PROC;
    message.id.val = CN_VAL_PROC;
    message.seq = nonce;
    message.ack = nonce;  // the kernel answers with it plus one
    message.len = sizeof(uint32_t);
    std::memcpy(request, &head, sizeof(head));
    std::memcpy(request + NLMSG_HDRLEN, &message, sizeof(message));
    std::memcpy(request + NLMSG_HDRLEN + sizeof(cn_msg), &op, sizeof(op));
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return ::sendto(socket_.get(), request, kSize, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof(kernel)) ==
           static_cast<ssize_t>(kSize);
}

}  // namespace wlc::portable
