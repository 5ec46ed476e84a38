#include "portable/sock_diag_poll.h"

#include <dirent.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "portable/proc_info.h"

namespace wlc::portable {
namespace {

constexpr std::size_t kReceiveBuffer = 64 * 1024;
constexpr int kReplyTimeoutMs = 1000;
// A reply that never ends is cut off here.
constexpr std::size_t kDatagramsPerDump = 1u << 16;
constexpr unsigned kTcpNewSynRecv = 12;  // not in the C library's list of states

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

}  // namespace

bool collectSocketInodes(int32_t pid, std::size_t& budget, std::unordered_map<uint64_t, int32_t>& owners) {
    std::string path = "/proc/" + std::to_string(pid) + "/fd";
    std::unique_ptr<DIR, DirCloser> dir(opendir(path.c_str()));
    if (!dir) return true;  // gone: nothing to find
    char link[64];
    while (dirent* entry = readdir(dir.get())) {
        if (entry->d_name[0] == '.') continue;
        if (budget == 0) return false;
        --budget;
        ssize_t length = ::readlinkat(dirfd(dir.get()), entry->d_name, link, sizeof(link));
        if (length <= 0 || static_cast<std::size_t>(length) >= sizeof(link)) continue;
        if (auto inode = parseSocketInode(std::string_view(link, static_cast<std::size_t>(length)))) {
            owners.emplace(*inode, pid);  // a socket shared after fork goes to the first holder
        }
    }
    return true;
}

SockDiagPoll::SockDiagPoll()
    : tables_{{AF_INET, IPPROTO_TCP, "TCP/IPv4"},
              {AF_INET6, IPPROTO_TCP, "TCP/IPv6"},
              {AF_INET, IPPROTO_UDP, "UDP/IPv4"},
              {AF_INET6, IPPROTO_UDP, "UDP/IPv6"}},
      buffer_(kReceiveBuffer) {}

bool SockDiagPoll::open(std::string& reason) {
    socket_.reset(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (!socket_.valid()) {
        reason = std::string("sock_diag: socket: ") + std::strerror(errno);
        return false;
    }
    timeval timeout{kReplyTimeoutMs / 1000, 0};
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));

    std::string unusable;
    const std::unordered_map<uint64_t, int32_t> nobody;
    for (Table& table : tables_) {
        std::vector<DiagSocket> ignored;
        int error = 0;
        table.usable = dump(table, ignored, nobody, error);
        if (!table.usable) {
            if (!unusable.empty()) unusable += ", ";
            unusable += std::string(table.name) + " (" + (error ? std::strerror(error) : "no answer") + ")";
        }
    }
    if (!tables_[0].usable && !tables_[1].usable) {
        reason = "sock_diag cannot list TCP sockets: " + unusable;
        socket_.reset();
        return false;
    }
    if (!unusable.empty()) {
        std::lock_guard lock(notesMutex_);
        notes_ = "sockets not seen: " + unusable;
    }
    return true;
}

void SockDiagPoll::pollOnce(const WatchSet& watched, std::vector<HostEvent>& out) {
    std::unordered_map<uint64_t, int32_t> owners;
    std::size_t budget = kFdBudget;
    bool complete = true;
    for (int32_t pid : watched.watchedPids()) {
        if (!collectSocketInodes(pid, budget, owners)) {
            complete = false;
            break;
        }
    }
    if (!complete) ++lost_;  // the processes past the budget are not looked at this round
    if (owners.empty()) {
        tracker_.clear();
        return;
    }

    std::vector<DiagSocket> snapshot;
    for (const Table& table : tables_) {
        int error = 0;
        if (table.usable && !dump(table, snapshot, owners, error)) ++lost_;
    }
    tracker_.update(snapshot, owners, out);
}

bool SockDiagPoll::dump(const Table& table, std::vector<DiagSocket>& into,
                        const std::unordered_map<uint64_t, int32_t>& owners, int& error) {
    struct {
        nlmsghdr head;
        inet_diag_req_v2 request;
    } message{};
    message.head.nlmsg_len = sizeof(message);
    message.head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.head.nlmsg_seq = ++seq_;
    message.request.sdiag_family = table.family;
    message.request.sdiag_protocol = table.protocol;
    message.request.idiag_states = ~0u;
    if (table.protocol == IPPROTO_TCP) {
        // Sockets waiting out TIME_WAIT or half-open requests belong to no process.
        message.request.idiag_states &= ~((1u << TCP_TIME_WAIT) | (1u << TCP_SYN_RECV) | (1u << kTcpNewSynRecv));
    }
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(socket_.get(), &message, sizeof(message), 0, reinterpret_cast<sockaddr*>(&kernel), sizeof(kernel)) !=
        static_cast<ssize_t>(sizeof(message))) {
        error = errno;
        return false;
    }

    std::vector<DiagSocket> part;
    bool complete = true;
    for (std::size_t round = 0; round < kDatagramsPerDump; ++round) {
        ssize_t got = ::recv(socket_.get(), buffer_.data(), buffer_.size(), 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            error = errno;
            return false;  // timed out: a late rest of this reply is skipped as foreign below
        }
        part.clear();
        DumpStatus status =
            decodeDiagDatagram(buffer_.data(), static_cast<std::size_t>(got), table.protocol, part, error);
        nlmsghdr head;
        std::memcpy(&head, buffer_.data(), std::min(sizeof(head), static_cast<std::size_t>(got)));
        if (static_cast<std::size_t>(got) >= sizeof(head) && head.nlmsg_seq != seq_) continue;  // an older reply
        for (const DiagSocket& socket : part) {
            bool wanted =
                owners.count(socket.inode) != 0 || (socket.protocol == IPPROTO_TCP && socket.state == TCP_LISTEN);
            if (!wanted) continue;
            if (into.size() >= kSnapshotMax) {
                complete = false;
                break;
            }
            into.push_back(socket);
        }
        if (status == DumpStatus::Done) return complete;
        if (status == DumpStatus::Failed) return false;
    }
    return false;
}

uint64_t SockDiagPoll::takeLost() { return std::exchange(lost_, 0); }

std::string SockDiagPoll::notes() const {
    std::lock_guard lock(notesMutex_);
    return notes_;
}

}  // namespace wlc::portable
