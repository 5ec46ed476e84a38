/* Channel to the action collector of the sibling process vr_agent. */
#ifndef VRCCL_ACTION_H
#define VRCCL_ACTION_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The record the client hands to the module's transmit_action_data: only
 * type, size and the payload are read, the rest is the collector's. */
struct action_collector_msg {
    unsigned char header[264];
    int32_t type; /* the action type, published as the bus event's sub_type */
    uint32_t reserved0;
    uint32_t size; /* bytes of payload */
    uint32_t reserved1;
    unsigned char payload[1]; /* size bytes from here on */
};
#ifdef __cplusplus
static_assert(offsetof(action_collector_msg, type) == 264, "action type at byte 264");
static_assert(offsetof(action_collector_msg, size) == 272, "payload size at byte 272");
static_assert(offsetof(action_collector_msg, payload) == 280, "payload at byte 280");
#endif

/* Connects to the collector: 0 once it answered, non-zero when none did.
 * Records then reach transmit_action_data on the library's own thread; when
 * the collector goes away the library publishes bus event 1022. */
int vrccl_action_init(void);
/* Safe to call when init failed or never ran. */
void vrccl_action_free(void);
/* action 260 adds process id to the collector's filter, 259 removes it.
 * reserved: always -1. 0 when sent, -1 when not connected or refused. */
int vrccl_action_subscribe(int action, int id, int reserved);

enum { VRCCL_ACTION_ADD_PID = 260, VRCCL_ACTION_DEL_PID = 259 };

#ifdef __cplusplus
}
#endif

#endif
