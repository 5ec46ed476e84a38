#include "portable/inet_diag_decode.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>

#include <cstring>

namespace wlc::portable {

DumpStatus decodeDiagDatagram(const uint8_t* data, std::size_t size, uint8_t protocol, std::vector<DiagSocket>& out,
                              int& error) {
    error = 0;
    std::size_t at = 0;
    while (size - at >= sizeof(nlmsghdr)) {
        nlmsghdr head;
        std::memcpy(&head, data + at, sizeof(head));
        if (head.nlmsg_len < sizeof(nlmsghdr) || head.nlmsg_len > size - at) return DumpStatus::Failed;
        const uint8_t* body = data + at + NLMSG_HDRLEN;
        std::size_t payload = head.nlmsg_len - NLMSG_HDRLEN;
        if (head.nlmsg_type == NLMSG_DONE) return DumpStatus::Done;
        if (head.nlmsg_type == NLMSG_ERROR) {
            int32_t code = 0;
            if (payload >= sizeof(code)) std::memcpy(&code, body, sizeof(code));
            error = code < 0 ? -code : code;
            return DumpStatus::Failed;
        }
        if (head.nlmsg_type != SOCK_DIAG_BY_FAMILY || payload < sizeof(inet_diag_msg)) return DumpStatus::Failed;

        inet_diag_msg msg;
        std::memcpy(&msg, body, sizeof(msg));
        if (msg.idiag_family != AF_INET && msg.idiag_family != AF_INET6) return DumpStatus::Failed;
        DiagSocket socket;
        socket.family = msg.idiag_family;
        socket.protocol = protocol;
        socket.state = msg.idiag_state;
        const std::size_t addressBytes = msg.idiag_family == AF_INET ? 4 : 16;
        std::memcpy(socket.src.data(), msg.id.idiag_src, addressBytes);
        std::memcpy(socket.dst.data(), msg.id.idiag_dst, addressBytes);
        socket.srcPort = ntohs(msg.id.idiag_sport);
        socket.dstPort = ntohs(msg.id.idiag_dport);
        socket.uid = msg.idiag_uid;
        socket.inode = msg.idiag_inode;
        out.push_back(socket);

        std::size_t step = NLMSG_ALIGN(head.nlmsg_len);
        if (step >= size - at) {
            at = size;
            break;
        }
        at += step;
    }
    return at == size ? DumpStatus::More : DumpStatus::Failed;
}

}  // namespace wlc::portable
