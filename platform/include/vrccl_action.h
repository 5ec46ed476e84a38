/* Channel to the action collector of the sibling process vr_agent. */
#ifndef VRCCL_ACTION_H
#define VRCCL_ACTION_H

#ifdef __cplusplus
extern "C" {
#endif

/* 0 on success. */
int vrccl_action_init(void);
/* Safe to call when init failed or never ran. */
void vrccl_action_free(void);
/* action 260 adds process id to the collector's filter, 259 removes it.
 * reserved: always -1. */
int vrccl_action_subscribe(int action, int id, int reserved);

enum { VRCCL_ACTION_ADD_PID = 260, VRCCL_ACTION_DEL_PID = 259 };

#ifdef __cplusplus
}
#endif

#endif
