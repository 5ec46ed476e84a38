/* Control and read-back of the scriptable action-collector channel, for
 * tests. Every call is recorded; 260 adds to the filter and 259 removes,
 * whether or not the channel is up (up: after an init that returned 0 and
 * until the next free), so tests of callers need no init. */
#ifndef VRCCL_CONTROL_H
#define VRCCL_CONTROL_H

#ifdef __cplusplus
extern "C" {
#endif

/* The next count init calls return these in turn; later ones return 0. */
void vrccl_control_set_init_results(const int* results, int count);
/* Back to the start: no script, no calls recorded, empty filter, down. */
void vrccl_control_reset(void);

int vrccl_control_init_calls(void);
int vrccl_control_free_calls(void);
/* Non-zero while the channel is up. */
int vrccl_control_is_up(void);

typedef struct vrccl_subscribe_call {
    int action;
    int id;
    int reserved;
} vrccl_subscribe_call;

/* The subscribe calls in order; copies at most max, returns how many were
 * made. */
int vrccl_control_subscribe_calls(vrccl_subscribe_call* calls, int max);
/* The process ids in the filter, ascending; copies at most max, returns how
 * many there are. */
int vrccl_control_filter(int* ids, int max);

#ifdef __cplusplus
}
#endif

#endif
