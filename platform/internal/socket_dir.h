// The directory a socket lives in. Whoever can write there can remove the
// socket and put one of their own in its place, so it, and every directory
// above it, must be changeable only by root or the agent's own user.
#ifndef WL_SOCKET_DIR_H
#define WL_SOCKET_DIR_H

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>

#include "dirutils.h"
#include "peer_cred.h"

namespace wlsock {

// Sticky directories such as /tmp let others add entries but not replace ours.
inline bool others_may_replace(const struct stat& st) {
    return (st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (st.st_mode & S_ISVTX) == 0;
}

// Makes the directory (0755) when missing and takes group and other write
// off it when it is ours. 0, or an errno value: EPERM when the directory or
// one above it belongs to another user or lets others replace it.
inline int secure_socket_dir(const std::string& dir) {
    if (dir.empty()) return EINVAL;
    errno = 0;
    if (dirutils_mkdir(dir.c_str(), 0755) != 0) return errno ? errno : EACCES;
    struct stat st;
    if (::lstat(dir.c_str(), &st) != 0) return errno;
    if (!S_ISDIR(st.st_mode)) return ENOTDIR;
    if (!trusted_uid(st.st_uid)) return EPERM;
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && ::chmod(dir.c_str(), st.st_mode & 07755) != 0) return errno;
    char real[PATH_MAX];
    if (::realpath(dir.c_str(), real) == nullptr) return errno;
    std::string above(real);
    while (above.size() > 1) {
        above.erase(above.find_last_of('/'));
        if (above.empty()) above = "/";
        if (::stat(above.c_str(), &st) != 0) return errno;
        if (!trusted_uid(st.st_uid) || others_may_replace(st)) return EPERM;
    }
    return 0;
}

}  // namespace wlsock

#endif
