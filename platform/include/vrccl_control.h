/* Test hooks of the collector client library libvrccl_ori: its counters and
 * its time limits. The agent never calls them. */
#ifndef VRCCL_CONTROL_H
#define VRCCL_CONTROL_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vrccl_counters {
    unsigned long long delivered;         /* records handed to transmit_action_data */
    unsigned long long undeliverable;     /* records dropped: no transmit_action_data */
    unsigned long long lost;              /* records missing from the sequence */
    unsigned long long protocol_errors;   /* connections cut for a malformed frame */
    unsigned long long drops;             /* connections that ended unexpectedly */
    unsigned long long offline_published; /* bus events 1022 handed to the bus */
} vrccl_counters;

/* Totals since the library was loaded or last reset. */
void vrccl_control_counters(vrccl_counters* out);
/* Counters to zero; time limits and receiver back to their defaults. Takes
 * effect for connections made afterwards. */
void vrccl_control_reset(void);
/* Milliseconds to connect, to wait for the greeting, to send a frame. */
void vrccl_control_set_timeouts(int connect_ms, int hello_ms, int send_ms);
/* The symbol records are handed to instead of transmit_action_data. */
void vrccl_control_set_receiver(const char* symbol);

#ifdef __cplusplus
}
#endif

#endif
