/* The records the eBPF program (collector.bpf.c) writes to its ring buffer
 * and the user-space half (src/ebpf_backend.cpp) reads: plain C, shared by
 * both sides, fixed layouts (no pointers, explicit padding).
 *
 * Every record starts with struct wlc_hdr; its kind says which of the
 * records below follows. Strings are NUL-terminated within their arrays. */
#ifndef WLC_COLLECTOR_EVENTS_H
#define WLC_COLLECTOR_EVENTS_H

#ifndef __VMLINUX_H__
#include <linux/types.h>
#endif

#define WLC_PATH_MAX 256     /* a path as the process named it */
#define WLC_CMDLINE_MAX 1024 /* the arguments of an exec, NUL-separated */
#define WLC_DNS_MAX 512      /* the first bytes of a DNS query */

/* Same numbers as wlc::EventKind (host_event.h); the user-space half checks. */
enum wlc_kind {
    WLC_K_PROCESS_CREATION = 0,
    WLC_K_FILE_CREATION = 1,
    WLC_K_FILE_MODIFICATION = 2,
    WLC_K_FILE_DELETION = 3,
    WLC_K_FILE_RENAMING = 4,
    WLC_K_FILE_TIME_CHANGE = 5,
    WLC_K_CONNECTION = 6,
    WLC_K_DNS_QUERY = 7,
    WLC_K_LISTENING = 8,
    WLC_K_FORK = 9,
    WLC_K_EXIT = 10,
    WLC_K_COUNT = 11,
};

struct wlc_hdr {
    __u64 time_ns; /* bpf_ktime_get_ns(): CLOCK_MONOTONIC */
    __u32 kind;    /* enum wlc_kind */
    __s32 pid;     /* thread group id of the actor */
    __s32 ppid;    /* ProcessCreation, Fork: the parent's thread group id */
    __u32 uid;     /* real uid of the actor */
};

/* WLC_K_FORK, WLC_K_EXIT: the header alone. */

/* WLC_K_PROCESS_CREATION */
struct wlc_proc_event {
    struct wlc_hdr h;
    __u32 cmdline_len; /* bytes of cmdline read (NUL-separated arguments) */
    __u32 pad;
    char path[WLC_PATH_MAX];
    char cmdline[WLC_CMDLINE_MAX];
};

/* WLC_K_FILE_* */
struct wlc_file_event {
    struct wlc_hdr h;
    __s32 dirfd; /* what a relative path is relative to; AT_FDCWD (-100) */
    __u32 pad;
    char path[WLC_PATH_MAX];
    char path2[WLC_PATH_MAX]; /* renaming: the new name */
};

/* WLC_K_CONNECTION, WLC_K_LISTENING: addresses in network order, ports in
 * host order; AF_INET fills the first 4 bytes. Listening: src is the
 * address listened on. */
struct wlc_net_event {
    struct wlc_hdr h;
    __u8 family;   /* AF_INET, AF_INET6 */
    __u8 protocol; /* IPPROTO_TCP, IPPROTO_UDP, ... */
    __u16 sport;
    __u16 dport;
    __u16 pad;
    __u8 saddr[16];
    __u8 daddr[16];
};

/* WLC_K_DNS_QUERY */
struct wlc_dns_event {
    struct wlc_net_event n;
    __u32 sent_len;    /* bytes the first buffer held */
    __u32 payload_len; /* bytes copied to payload (at most WLC_DNS_MAX) */
    __u8 payload[WLC_DNS_MAX];
};

#endif
