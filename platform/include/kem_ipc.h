/* Local IPC between agent components: named endpoints, addresses of other
 * endpoints, requests with a reply callback, and message subscriptions.
 * Endpoints are Unix stream sockets "@/../var/run/ipc/<name>.sock"; a
 * message is a 16-byte header (magic, cmd, size, request id) and at most
 * 4 MiB of data. Both ends accept only root or the agent's own user as
 * their peer (SO_PEERCRED); connections, buffered bytes, messages waiting
 * for the owner and idle time are bounded (docs/architecture.md, "Local
 * channels").
 * Callbacks run on the thread that made the endpoint, through its cl_ev
 * loop. */
#ifndef KEM_IPC_H
#define KEM_IPC_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void* kem_ipc_t;
typedef void* kem_addr_t;

/* Called for each message that reaches the endpoint. ctx1 and ctx2
 * identify the sender for kem_ipc_response. data is followed by a NUL that
 * size doesn't count, and is null when size is 0. */
typedef void (*kem_ipc_msg_fn)(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, const void* data,
                               unsigned int size, void* user);
/* Reply of a request; status is negative on failure or time-out. */
typedef void (*kem_ipc_reply_fn)(int status, unsigned int cmd, const void* data, unsigned int size);

/* flags: unused. Null on failure, with errno set (EADDRINUSE: the name is
 * served already). */
kem_ipc_t kem_ipc_create(const char* name, int flags);
void kem_ipc_destroy(kem_ipc_t ipc);
/* The address of the endpoint with that name. kind, flags: unused. */
kem_addr_t kem_addr_create(const char* name, int kind, int flags);
void kem_addr_destroy(kem_addr_t addr);

/* Subscribes fn to the messages of the endpoint; 0 on success. */
int kem_ipc_msg_recv(kem_ipc_t ipc, kem_ipc_msg_fn fn, void* user);

/* Sends cmd with data to addr; the buffer is free again on return. The
 * reply, or a failure, arrives later through reply on the calling thread.
 * wait: seconds before a missing reply counts as failure (10 when not
 * above 0). Status 0 with the answer, else a negative errno value. 0 when
 * sent. */
int kem_ipc_make_request(kem_ipc_t ipc, kem_addr_t addr, unsigned int cmd, const void* data, unsigned int size,
                         kem_ipc_reply_fn reply, void* reserved, int wait);

/* Answers the message identified by ctx1/ctx2, from any thread. -1 when
 * the asker is gone. flags: unused. */
int kem_ipc_response(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, int flags, const void* data,
                     unsigned int size);

/* Sends one message to the named endpoint and waits up to wait_ms for its
 * answer; for tools. Returns the length stored in answer (at most
 * answer_size), or -1. */
int kem_ipc_call(const char* name, unsigned int cmd, const void* data, unsigned int size, void* answer,
                 unsigned int answer_size, int wait_ms);

#ifdef __cplusplus
}
#endif

#endif
