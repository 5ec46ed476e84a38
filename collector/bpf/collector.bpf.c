// SPDX-License-Identifier: GPL-2.0
/* The eBPF half of the collector's "ebpf" back-end (docs/collector.md).
 *
 * Watched processes live in the map `watched` (thread group id -> the
 * subscribed root it is watched for). User space adds and removes roots; a
 * fork of a watched process adds the child with its parent's root, the end
 * of a watched process removes it.
 *
 * Syscalls are seen at raw_tp/sys_enter and raw_tp/sys_exit. The enter
 * program first filters by syscall number, then does one look-up in
 * `watched`: an unwatched process pays nothing more and nothing of it
 * reaches user space. For a watched one, the arguments are stashed per
 * thread in `inflight` and the event is emitted at exit, only when the
 * syscall succeeded.
 *
 * Records (collector_events.h) go through the ring buffer `events`; a record
 * that does not fit is counted per kind in `lost`.
 *
 * x86_64 only: syscall numbers and argument registers are the x86_64 ones;
 * 32-bit (ia32) syscalls of a watched process are ignored. */
#include "vmlinux.h"

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

#include "collector_events.h"

char LICENSE[] SEC("license") = "GPL";

/* x86_64 syscall numbers (arch/x86/entry/syscalls/syscall_64.tbl). */
#define NR_open 2
#define NR_connect 42
#define NR_sendto 44
#define NR_sendmsg 46
#define NR_listen 50
#define NR_truncate 76
#define NR_rename 82
#define NR_creat 85
#define NR_unlink 87
#define NR_utime 132
#define NR_utimes 235
#define NR_openat 257
#define NR_futimesat 261
#define NR_unlinkat 263
#define NR_renameat 264
#define NR_utimensat 280
#define NR_sendmmsg 307
#define NR_renameat2 316
#define NR_openat2 437

/* Kernel and user ABI constants (macros, so not in vmlinux.h). */
#define WLC_AT_FDCWD -100
#define WLC_AT_REMOVEDIR 0x200
#define WLC_O_WRONLY 01
#define WLC_O_RDWR 02
#define WLC_O_CREAT 0100
#define WLC_O_TRUNC 01000
#define WLC_O_TMPFILE 020000000 /* __O_TMPFILE */
#define WLC_FMODE_WRITE 0x2
#define WLC_FMODE_CREATED 0x100000
#define WLC_EINPROGRESS 115
#define WLC_AF_INET 2
#define WLC_AF_INET6 10
#define WLC_S_IFMT 0170000
#define WLC_S_IFSOCK 0140000
#define WLC_S_IFREG 0100000
#define WLC_TS_COMPAT 0x0002 /* thread_info.status: an ia32 syscall runs */
#define WLC_DNS_PORT 53

#define WLC_MAX_WATCHED 32768
#define WLC_MAX_INFLIGHT 4096
#define WLC_WAKEUP_NS (2 * 1000 * 1000) /* see submit() */
#define WLC_WAKEUP_BYTES (1 << 20)

/* What sys_enter saw, for sys_exit to complete. */
struct inflight {
    __u32 nr;    /* syscall number */
    __s32 fd;    /* dirfd for the *at file calls; the socket for network ones */
    __u64 flags; /* open flags */
    /* Paths are read at enter; when that fails (the page was not yet
     * faulted in), read again at exit from the same user pointer. */
    __s64 path_len[2];
    __u64 path_ptr[2];
    /* DNS: the first buffer sent, and for sendmmsg the first mmsghdr (its
     * msg_len says how much of the buffer went). */
    __u64 buf;
    __u64 buf_len;
    __u64 mmsg;
    /* connect, DNS: the destination. */
    __u8 family;
    __u8 protocol;
    __u16 dport; /* host order */
    __u32 pad;
    __u8 daddr[16];
    char path[2][WLC_PATH_MAX];
};

/* User ABI layouts (x86_64), read with bpf_probe_read_user. */
struct wlc_sockaddr { /* big enough for sockaddr_in and sockaddr_in6 */
    __u16 family;
    __u16 port; /* network order */
    __u8 v4[4]; /* sockaddr_in.sin_addr; sockaddr_in6.sin6_flowinfo */
    __u8 v6[16];
    __u32 scope_id;
};
struct wlc_user_msghdr { /* the head of struct user_msghdr / mmsghdr */
    __u64 name;
    __s32 namelen;
    __u32 pad;
    __u64 iov;
    __u64 iovlen;
};
struct wlc_user_iovec {
    __u64 base;
    __u64 len;
};
#define WLC_MMSGHDR_MSG_LEN_OFFSET 56 /* after the 56-byte user_msghdr */

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, WLC_MAX_WATCHED);
    __type(key, __u32);   /* tgid */
    __type(value, __u32); /* the watched root */
} watched SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(max_entries, WLC_MAX_INFLIGHT);
    __type(key, __u64); /* pid_tgid: one syscall per thread at a time */
    __type(value, struct inflight);
} inflight SEC(".maps");

/* Room to build an inflight entry: too big for the 512-byte stack. */
struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct inflight);
} scratch SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, 8 << 20);
} events SEC(".maps");

/* When the reader was last woken (bpf_ktime_get_ns). */
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, __u64);
} last_wakeup SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, WLC_K_COUNT);
    __type(key, __u32);   /* enum wlc_kind */
    __type(value, __u64); /* records lost */
} lost SEC(".maps");

/* ---- small helpers ---------------------------------------------------- */

static __always_inline void count_lost(__u32 kind) {
    __u64* n = bpf_map_lookup_elem(&lost, &kind);
    if (n) *n += 1; /* per-CPU: no atomics needed */
}

/* A ring buffer record of `size` bytes with its header filled for the
 * current process, or NULL (counted) when the buffer is full. */
static __always_inline void* reserve(__u64 size, __u32 kind) {
    struct wlc_hdr* h = bpf_ringbuf_reserve(&events, size, 0);
    if (!h) {
        count_lost(kind);
        return NULL;
    }
    h->time_ns = bpf_ktime_get_ns();
    h->kind = kind;
    h->pid = bpf_get_current_pid_tgid() >> 32;
    h->ppid = 0;
    h->uid = (__u32)bpf_get_current_uid_gid();
    return h;
}

/* Hands a reserved record over. Waking the reader for every record costs
 * more than the record (a context switch each): wake it for the first
 * record after a quiet spell, so that a lone event is seen at once, then at
 * most every WLC_WAKEUP_NS, or when WLC_WAKEUP_BYTES have gathered. The
 * reader also looks on its own, 3 ms after records came and every 50 ms
 * when quiet, for the tail of a burst. */
static __always_inline void submit(void* rec) {
    __u64 now = ((struct wlc_hdr*)rec)->time_ns;
    __u32 zero = 0;
    __u64* last = bpf_map_lookup_elem(&last_wakeup, &zero);
    __u64 flags = BPF_RB_NO_WAKEUP;

    if (!last || now - *last >= WLC_WAKEUP_NS || bpf_ringbuf_query(&events, BPF_RB_AVAIL_DATA) >= WLC_WAKEUP_BYTES) {
        flags = BPF_RB_FORCE_WAKEUP;
        if (last) *last = now; /* racy between CPUs; an extra wake-up at worst */
    }
    bpf_ringbuf_submit(rec, flags);
}

static __always_inline bool in_ia32_syscall(void) {
    struct task_struct* task = (void*)bpf_get_current_task();
    return BPF_CORE_READ(task, thread_info.status) & WLC_TS_COMPAT;
}

/* The struct file behind fd in the current process, or NULL. */
static __always_inline struct file* fd_file(long fd) {
    struct task_struct* task = (void*)bpf_get_current_task();
    struct fdtable* fdt = BPF_CORE_READ(task, files, fdt);
    struct file** fds;
    struct file* f = NULL;

    if (!fdt || fd < 0 || fd >= BPF_CORE_READ(fdt, max_fds)) return NULL;
    fds = BPF_CORE_READ(fdt, fd);
    bpf_probe_read_kernel(&f, sizeof(f), &fds[fd]);
    return f;
}

/* The struct sock behind fd when fd is a socket, else NULL. */
static __always_inline struct sock* fd_sock(long fd) {
    struct file* f = fd_file(fd);
    struct socket* sock;

    if (!f || (BPF_CORE_READ(f, f_inode, i_mode) & WLC_S_IFMT) != WLC_S_IFSOCK) return NULL;
    sock = BPF_CORE_READ(f, private_data);
    return BPF_CORE_READ(sock, sk);
}

/* The socket's local address and port (an AF_INET address in 4 bytes). */
static __always_inline void sock_local(struct sock* sk, __u8 family, __u8 addr[16], __u16* port) {
    *port = BPF_CORE_READ(sk, __sk_common.skc_num);
    if (family == WLC_AF_INET)
        bpf_core_read(addr, 4, &sk->__sk_common.skc_rcv_saddr);
    else
        bpf_core_read(addr, 16, &sk->__sk_common.skc_v6_rcv_saddr);
}

/* The peer of a connected socket, into in's destination. */
static __always_inline void sock_peer(struct sock* sk, struct inflight* in) {
    in->family = BPF_CORE_READ(sk, __sk_common.skc_family);
    in->dport = bpf_ntohs(BPF_CORE_READ(sk, __sk_common.skc_dport));
    if (in->family == WLC_AF_INET)
        bpf_core_read(in->daddr, 4, &sk->__sk_common.skc_daddr);
    else
        bpf_core_read(in->daddr, 16, &sk->__sk_common.skc_v6_daddr);
}

/* A user sockaddr into in's destination; false unless AF_INET/AF_INET6. */
static __always_inline bool read_sockaddr(struct inflight* in, __u64 uaddr, __u64 addrlen) {
    struct wlc_sockaddr sa = {};

    if (!uaddr || addrlen < 4) return false;
    if (addrlen > sizeof(sa)) addrlen = sizeof(sa);
    if (bpf_probe_read_user(&sa, addrlen, (void*)uaddr)) return false;
    if (sa.family == WLC_AF_INET)
        __builtin_memcpy(in->daddr, sa.v4, 4);
    else if (sa.family == WLC_AF_INET6)
        __builtin_memcpy(in->daddr, sa.v6, 16);
    else
        return false;
    in->family = sa.family;
    in->dport = bpf_ntohs(sa.port);
    return true;
}

/* The i-th path argument; kept for a second try at exit if unreadable now. */
static __always_inline void read_path(struct inflight* in, int i, __u64 uptr) {
    in->path_ptr[i] = uptr;
    in->path_len[i] = uptr ? bpf_probe_read_user_str(in->path[i], WLC_PATH_MAX, (void*)uptr) : 0;
}

/* ---- sys_enter: decide and stash -------------------------------------- */

/* open/creat/openat/openat2: only an open that may create or write matters;
 * whether it did is known from the file's f_mode at exit. O_TMPFILE makes
 * a file without a name (path names its directory): not reported. */
static __always_inline bool enter_open(struct inflight* in, long dirfd, __u64 path, __u64 flags) {
    if (!(flags & (WLC_O_WRONLY | WLC_O_RDWR | WLC_O_CREAT | WLC_O_TRUNC)) || (flags & WLC_O_TMPFILE)) return false;
    in->fd = dirfd;
    in->flags = flags;
    read_path(in, 0, path);
    return true;
}

/* The other file calls: up to two paths, relative to dirfd. */
static __always_inline bool enter_file(struct inflight* in, long dirfd, __u64 path, __u64 path2) {
    in->fd = dirfd;
    read_path(in, 0, path);
    read_path(in, 1, path2);
    return true;
}

/* connect: the destination, AF_INET and AF_INET6 only. */
static __always_inline bool enter_connect(struct inflight* in, long fd, __u64 uaddr, __u64 addrlen) {
    in->fd = fd;
    return read_sockaddr(in, uaddr, addrlen);
}

/* sendto/sendmsg/sendmmsg: keep it only when it goes to port 53, to the
 * address given or, without one, to the connected socket's peer (the C
 * library's resolver connects its UDP socket, then sends). */
static __always_inline bool enter_send(struct inflight* in, long fd, __u64 buf, __u64 len, __u64 uaddr, __u64 addrlen) {
    struct sock* sk = fd_sock(fd);
    __u16 family;

    if (!sk) return false;
    family = BPF_CORE_READ(sk, __sk_common.skc_family);
    if (family != WLC_AF_INET && family != WLC_AF_INET6) return false;
    if (uaddr) {
        if (!read_sockaddr(in, uaddr, addrlen)) return false;
    } else {
        sock_peer(sk, in);
    }
    if (in->dport != WLC_DNS_PORT) return false;
    in->fd = fd;
    in->protocol = BPF_CORE_READ(sk, sk_protocol);
    in->buf = buf;
    in->buf_len = len;
    return true;
}

/* sendmsg/sendmmsg: the destination and first buffer of the first message. */
static __always_inline bool enter_sendmsg(struct inflight* in, long fd, __u64 umsg) {
    struct wlc_user_msghdr msg;
    struct wlc_user_iovec iov;

    if (!umsg || bpf_probe_read_user(&msg, sizeof(msg), (void*)umsg)) return false;
    if (!msg.iov || !msg.iovlen || bpf_probe_read_user(&iov, sizeof(iov), (void*)msg.iov)) return false;
    return enter_send(in, fd, iov.base, iov.len, msg.name, msg.namelen);
}

/* The event kind a syscall is counted under when it cannot be stashed. */
static __always_inline __u32 kind_of(long nr) {
    switch (nr) {
        case NR_truncate: return WLC_K_FILE_MODIFICATION;
        case NR_unlink:
        case NR_unlinkat: return WLC_K_FILE_DELETION;
        case NR_rename:
        case NR_renameat:
        case NR_renameat2: return WLC_K_FILE_RENAMING;
        case NR_utime:
        case NR_utimes:
        case NR_utimensat:
        case NR_futimesat: return WLC_K_FILE_TIME_CHANGE;
        case NR_connect: return WLC_K_CONNECTION;
        case NR_listen: return WLC_K_LISTENING;
        case NR_sendto:
        case NR_sendmsg:
        case NR_sendmmsg: return WLC_K_DNS_QUERY;
        default: /* the opens: creation or modification, not known yet */ return WLC_K_FILE_CREATION;
    }
}

/* The syscalls the program reports on; every other one leaves at once. */
static __always_inline bool reported_syscall(long nr) {
    switch (nr) {
        case NR_open:
        case NR_creat:
        case NR_openat:
        case NR_openat2:
        case NR_truncate:
        case NR_unlink:
        case NR_unlinkat:
        case NR_rename:
        case NR_renameat:
        case NR_renameat2:
        case NR_utime:
        case NR_utimes:
        case NR_utimensat:
        case NR_futimesat:
        case NR_connect:
        case NR_listen:
        case NR_sendto:
        case NR_sendmsg:
        case NR_sendmmsg: return true;
        default: return false;
    }
}

SEC("raw_tp/sys_enter")
int handle_sys_enter(struct bpf_raw_tracepoint_args* ctx) {
    long nr = ctx->args[1];
    struct pt_regs* regs;
    struct inflight* in;
    __u64 id, a0, a1, a2, a3, a4;
    __u32 tgid, zero = 0;
    bool keep = false;

    if (!reported_syscall(nr)) /* first, and cheapest */
        return 0;
    id = bpf_get_current_pid_tgid();
    tgid = id >> 32;
    if (!bpf_map_lookup_elem(&watched, &tgid)) /* the one look-up */
        return 0;
    if (in_ia32_syscall()) /* other numbers and registers: not handled */
        return 0;
    in = bpf_map_lookup_elem(&scratch, &zero);
    if (!in) return 0;
    in->nr = nr;
    in->fd = WLC_AT_FDCWD;
    in->flags = 0;
    in->path_len[0] = in->path_len[1] = 0;
    in->path_ptr[0] = in->path_ptr[1] = 0;
    in->path[0][0] = in->path[1][0] = 0;
    in->buf = in->buf_len = in->mmsg = 0;
    in->family = in->protocol = 0;
    in->dport = 0;
    __builtin_memset(in->daddr, 0, sizeof(in->daddr)); /* listen has none */

    regs = (struct pt_regs*)ctx->args[0];
    a0 = BPF_CORE_READ(regs, di);
    a1 = BPF_CORE_READ(regs, si);
    a2 = BPF_CORE_READ(regs, dx);
    a3 = BPF_CORE_READ(regs, r10);
    a4 = BPF_CORE_READ(regs, r8);

    switch (nr) {
        case NR_open: /* (path, flags, mode) */ keep = enter_open(in, WLC_AT_FDCWD, a0, a1); break;
        case NR_creat: /* (path, mode) */
            keep = enter_open(in, WLC_AT_FDCWD, a0, WLC_O_CREAT | WLC_O_WRONLY | WLC_O_TRUNC);
            break;
        case NR_openat: /* (dirfd, path, flags, mode) */ keep = enter_open(in, (int)a0, a1, a2); break;
        case NR_openat2: { /* (dirfd, path, struct open_how *how, size): how->flags first */
            __u64 flags = 0;
            if (a2 && !bpf_probe_read_user(&flags, sizeof(flags), (void*)a2)) keep = enter_open(in, (int)a0, a1, flags);
            break;
        }
        case NR_truncate: /* (path, length) */
        case NR_unlink:   /* (path) */
        case NR_utime:    /* (path, times) */
        case NR_utimes: /* (path, times) */ keep = enter_file(in, WLC_AT_FDCWD, a0, 0); break;
        case NR_unlinkat: /* (dirfd, path, flags): a directory is not a file */
            keep = !(a2 & WLC_AT_REMOVEDIR) && enter_file(in, (int)a0, a1, 0);
            break;
        case NR_futimesat: /* (dirfd, path, times) */ keep = enter_file(in, (int)a0, a1, 0); break;
        case NR_utimensat: /* (dirfd, path, times, flags); no path: futimens(fd), skipped */
            keep = a1 && enter_file(in, (int)a0, a1, 0);
            break;
        case NR_rename: /* (old, new) */ keep = enter_file(in, WLC_AT_FDCWD, a0, a1); break;
        case NR_renameat:  /* (olddirfd, old, newdirfd, new) */
        case NR_renameat2: /* (olddirfd, old, newdirfd, new, flags) */
            /* One dirfd travels: the old one (HostEvent has room for one). */
            keep = enter_file(in, (int)a0, a1, a3);
            break;
        case NR_connect: /* (fd, addr, addrlen) */ keep = enter_connect(in, (int)a0, a1, a2); break;
        case NR_listen: /* (fd, backlog) */
            in->fd = (int)a0;
            keep = true;
            break;
        case NR_sendto: /* (fd, buf, len, flags, addr, addrlen) */
            keep = enter_send(in, (int)a0, a1, a2, a4, BPF_CORE_READ(regs, r9));
            break;
        case NR_sendmsg: /* (fd, msg, flags) */ keep = enter_sendmsg(in, (int)a0, a1); break;
        case NR_sendmmsg: /* (fd, msgvec, vlen, flags) */
            keep = a2 && enter_sendmsg(in, (int)a0, a1);
            in->mmsg = a1;
            break;
    }
    if (keep && bpf_map_update_elem(&inflight, &id, in, BPF_ANY))
        count_lost(kind_of(nr)); /* too many syscalls in flight */
    return 0;
}

/* ---- sys_exit: complete and emit -------------------------------------- */

/* Copy path i to dst: as read at enter, else read again now. */
static __always_inline void copy_path(char* dst, struct inflight* in, int i) {
    if (in->path_len[i] > 0)
        bpf_probe_read_kernel(dst, WLC_PATH_MAX, in->path[i]);
    else if (!in->path_ptr[i] || bpf_probe_read_user_str(dst, WLC_PATH_MAX, (void*)in->path_ptr[i]) < 0)
        dst[0] = 0; /* unreadable: user space drops the record and counts it */
}

static __always_inline void emit_file(__u32 kind, struct inflight* in) {
    struct wlc_file_event* e = reserve(sizeof(*e), kind);

    if (!e) return;
    e->dirfd = in->fd;
    e->pad = 0;
    copy_path(e->path, in, 0);
    copy_path(e->path2, in, 1);
    submit(e);
}

/* An open that succeeded: created, or opened an existing file to write.
 * Only regular files count as modified: writing to /dev/null, a tty or a
 * FIFO changes no file. */
static __always_inline void exit_open(struct inflight* in, long ret) {
    struct file* f;
    __u32 fmode;

    if (ret < 0 || !(f = fd_file(ret))) return;
    fmode = BPF_CORE_READ(f, f_mode);
    if (fmode & WLC_FMODE_CREATED)
        emit_file(WLC_K_FILE_CREATION, in);
    else if (((fmode & WLC_FMODE_WRITE) || (in->flags & WLC_O_TRUNC)) &&
             (BPF_CORE_READ(f, f_inode, i_mode) & WLC_S_IFMT) == WLC_S_IFREG)
        emit_file(WLC_K_FILE_MODIFICATION, in);
}

/* connect succeeded or is under way, listen succeeded: the socket's local
 * address with the destination stashed at enter (connect). */
static __always_inline void emit_net(__u32 kind, struct inflight* in) {
    struct sock* sk = fd_sock(in->fd);
    struct wlc_net_event* e;
    __u8 family;

    if (!sk) return;
    family = kind == WLC_K_LISTENING ? BPF_CORE_READ(sk, __sk_common.skc_family) : in->family;
    if (family != WLC_AF_INET && family != WLC_AF_INET6) return; /* e.g. a unix socket listening */
    e = reserve(sizeof(*e), kind);
    if (!e) return;
    e->family = family;
    e->protocol = BPF_CORE_READ(sk, sk_protocol);
    e->pad = 0;
    __builtin_memset(e->saddr, 0, sizeof(e->saddr));
    sock_local(sk, family, e->saddr, &e->sport);
    e->dport = in->dport;
    __builtin_memcpy(e->daddr, in->daddr, sizeof(e->daddr));
    submit(e);
}

/* A send to port 53 went out: the first bytes of its first buffer, and
 * the socket's local address (bound by now). */
static __always_inline void emit_dns(struct inflight* in, __u64 sent) {
    struct wlc_dns_event* e = reserve(sizeof(*e), WLC_K_DNS_QUERY);
    struct sock* sk;
    __u64 n = in->buf_len;

    if (!e) return;
    e->n.family = in->family;
    e->n.protocol = in->protocol;
    e->n.pad = 0;
    e->n.sport = 0;
    __builtin_memset(e->n.saddr, 0, sizeof(e->n.saddr));
    sk = fd_sock(in->fd);
    if (sk) sock_local(sk, in->family, e->n.saddr, &e->n.sport);
    e->n.dport = in->dport;
    __builtin_memcpy(e->n.daddr, in->daddr, sizeof(e->n.daddr));
    if (n > sent) n = sent;
    if (n > WLC_DNS_MAX) n = WLC_DNS_MAX;
    e->sent_len = in->buf_len;
    if (bpf_probe_read_user(e->payload, n, (void*)in->buf)) n = 0;
    e->payload_len = n;
    submit(e);
}

SEC("raw_tp/sys_exit")
int handle_sys_exit(struct bpf_raw_tracepoint_args* ctx) {
    struct pt_regs* regs = (struct pt_regs*)ctx->args[0];
    long ret = ctx->args[1];
    long nr = BPF_CORE_READ(regs, orig_ax);
    struct inflight* in;
    __u64 id;
    __u32 tgid;

    if (!reported_syscall(nr)) /* as at enter, before any map look-up */
        return 0;
    id = bpf_get_current_pid_tgid();
    in = bpf_map_lookup_elem(&inflight, &id);
    if (!in) return 0;
    if (in->nr != nr) /* left over from a syscall that never returned */
        goto done;
    tgid = id >> 32;
    if (!bpf_map_lookup_elem(&watched, &tgid)) /* unwatched meanwhile */
        goto done;

    switch (nr) {
        case NR_open:
        case NR_creat:
        case NR_openat:
        case NR_openat2: exit_open(in, ret); break;
        case NR_truncate:
            if (ret == 0) emit_file(WLC_K_FILE_MODIFICATION, in);
            break;
        case NR_unlink:
        case NR_unlinkat:
            if (ret == 0) emit_file(WLC_K_FILE_DELETION, in);
            break;
        case NR_rename:
        case NR_renameat:
        case NR_renameat2:
            if (ret == 0) emit_file(WLC_K_FILE_RENAMING, in);
            break;
        case NR_utime:
        case NR_utimes:
        case NR_utimensat:
        case NR_futimesat:
            if (ret == 0) emit_file(WLC_K_FILE_TIME_CHANGE, in);
            break;
        case NR_connect:
            if (ret == 0 || ret == -WLC_EINPROGRESS) emit_net(WLC_K_CONNECTION, in);
            break;
        case NR_listen:
            if (ret == 0) emit_net(WLC_K_LISTENING, in);
            break;
        case NR_sendto:
        case NR_sendmsg:
            if (ret >= 0) emit_dns(in, ret);
            break;
        case NR_sendmmsg: { /* ret: messages sent; the first one's msg_len: its bytes */
            __u32 sent = 0;
            if (ret >= 1 && !bpf_probe_read_user(&sent, sizeof(sent), (void*)(in->mmsg + WLC_MMSGHDR_MSG_LEN_OFFSET)))
                emit_dns(in, sent);
            break;
        }
    }
done:
    bpf_map_delete_elem(&inflight, &id);
    return 0;
}

/* ---- processes ---------------------------------------------------------- */

/* A watched process forked: the child is watched for the same root. */
SEC("tp_btf/sched_process_fork")
int BPF_PROG(handle_fork, struct task_struct* parent, struct task_struct* child) {
    __u32 ptgid = parent->tgid, ctgid = child->tgid;
    struct wlc_hdr* h;
    __u32 *root, r;

    if (ctgid == ptgid) /* a new thread of the same process */
        return 0;
    root = bpf_map_lookup_elem(&watched, &ptgid);
    if (!root) return 0;
    r = *root;
    if (bpf_map_update_elem(&watched, &ctgid, &r, BPF_ANY)) {
        count_lost(WLC_K_FORK); /* the map is full: the child goes unwatched */
        return 0;
    }
    h = reserve(sizeof(*h), WLC_K_FORK);
    if (!h) return 0;
    h->pid = ctgid;
    h->ppid = ptgid;
    submit(h);
    return 0;
}

/* A watched process ran execve: the new program's path and arguments. */
SEC("tp_btf/sched_process_exec")
int BPF_PROG(handle_exec, struct task_struct* p, pid_t old_pid, struct linux_binprm* bprm) {
    __u32 tgid = p->tgid;
    struct wlc_proc_event* e;
    struct mm_struct* mm;
    __u64 start, len;

    if (!bpf_map_lookup_elem(&watched, &tgid)) return 0;
    e = reserve(sizeof(*e), WLC_K_PROCESS_CREATION);
    if (!e) return 0;
    e->h.pid = tgid;
    e->h.ppid = BPF_CORE_READ(p, real_parent, tgid);
    e->pad = 0;
    if (bpf_probe_read_kernel_str(e->path, sizeof(e->path), BPF_CORE_READ(bprm, filename)) < 0) e->path[0] = 0;
    /* The new image's arguments: NUL-separated, at arg_start of the new mm. */
    mm = BPF_CORE_READ(p, mm);
    start = BPF_CORE_READ(mm, arg_start);
    len = BPF_CORE_READ(mm, arg_end) - start;
    if (len > WLC_CMDLINE_MAX) len = WLC_CMDLINE_MAX;
    if (bpf_probe_read_user(e->cmdline, len, (void*)start)) len = 0;
    e->cmdline_len = len;
    submit(e);
    return 0;
}

/* A thread ended. Its stash (if any) goes; when it was the last thread of a
 * watched process, the process leaves the map. "Last" is signal->live at 0
 * (decremented before this tracepoint), not pid == tgid: the group leader
 * may end before its other threads. */
SEC("tp_btf/sched_process_exit")
int BPF_PROG(handle_exit, struct task_struct* p) {
    __u64 id = bpf_get_current_pid_tgid();
    __u32 tgid = id >> 32;
    struct wlc_hdr* h;

    bpf_map_delete_elem(&inflight, &id);
    if (BPF_CORE_READ(p, signal, live.counter) != 0) return 0;
    /* Two threads ending together may both see 0: only the one that
     * removes the entry reports. */
    if (bpf_map_delete_elem(&watched, &tgid)) return 0;
    h = reserve(sizeof(*h), WLC_K_EXIT);
    if (!h) return 0;
    submit(h);
    return 0;
}
