/* The stream between the action collector (wl-collector, x86_64) and its
 * client library libvrccl_ori (in the agent process, i386 when shipped):
 * frames of a fixed 12-byte head and a body, little-endian, the same layout
 * on every architecture. docs/collector.md describes the exchange. */
#ifndef VRCCL_WIRE_H
#define VRCCL_WIRE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Where the collector listens, in the agent's "@" form. */
#define VRCCL_SOCKET_PATTERN "@/../var/run/vrccl.sock"

#define VRCCL_MAGIC 0x31435256u /* "VRC1" */
#define VRCCL_PROTOCOL_VERSION 1u
/* No body is larger; a peer that announces more is cut off. */
#define VRCCL_MAX_BODY 65536u

enum vrccl_frame_kind {
    VRCCL_HELLO = 1,      /* collector -> client, first frame: vrccl_hello */
    VRCCL_SUBSCRIBE = 2,  /* client -> collector: vrccl_subscribe */
    VRCCL_RECORD = 3,     /* collector -> client: vrccl_record_head + payload */
    VRCCL_STATUS_REQ = 4, /* any peer -> collector: no body */
    VRCCL_STATUS = 5,     /* collector -> peer: JSON text, no terminator */
};

#pragma pack(push, 1)

struct vrccl_frame_head {
    uint32_t magic;
    uint16_t kind;
    uint16_t flags;  /* zero */
    uint32_t length; /* bytes of body that follow */
};

struct vrccl_hello {
    uint32_t version;
    uint32_t collector_pid;
    char backend[16]; /* "ebpf", "portable", "replay"; zero-terminated */
};

struct vrccl_subscribe {
    int32_t action; /* 260 add, 259 withdraw */
    int32_t pid;
    int32_t reserved; /* -1 */
};

struct vrccl_record_head {
    uint32_t sub_type; /* enum action_sub_type */
    uint32_t size;     /* bytes of native record that follow */
    uint64_t sequence; /* per connection, from 1; a gap is a loss */
};

#pragma pack(pop)

#ifdef __cplusplus
static_assert(sizeof(vrccl_frame_head) == 12, "frame head is 12 bytes");
static_assert(sizeof(vrccl_hello) == 24, "hello is 24 bytes");
static_assert(sizeof(vrccl_subscribe) == 12, "subscribe is 12 bytes");
static_assert(sizeof(vrccl_record_head) == 16, "record head is 16 bytes");
}
#endif

#endif
