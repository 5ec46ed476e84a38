// Who is on the other end of a Unix socket, as the kernel saw it at connect
// time. File modes alone are not enough: a socket file made too open by
// mistake, or a descriptor passed on, must still meet a credential check.
#ifndef WL_PEER_CRED_H
#define WL_PEER_CRED_H

#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

namespace wlsock {

struct PeerCred {
    pid_t pid = 0;
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
};

// False when the kernel tells nothing (not a Unix socket, or it failed).
inline bool read_peer(int fd, PeerCred* out) {
    struct ucred cred;
    socklen_t size = sizeof(cred);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0 || size != sizeof(cred)) return false;
    out->pid = cred.pid;
    out->uid = cred.uid;
    out->gid = cred.gid;
    return true;
}

// Root, or the user the agent itself runs as.
inline bool trusted_uid(uid_t uid) { return uid == 0 || uid == ::geteuid(); }

inline bool trusted_peer(int fd, PeerCred* out) { return read_peer(fd, out) && trusted_uid(out->uid); }

}  // namespace wlsock

#endif
