/* Mutexes, conditions, events, threads and atomics of the orv_ family. */
#ifndef ORV_SYNC_H
#define ORV_SYNC_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void* orv_mutex_t;
typedef void* orv_cond_t;
typedef void* orv_event_t;
typedef unsigned long orv_thread_t;
typedef void* (*orv_thread_fn)(void*);

/* All return 0 on success, an errno value otherwise. */
int orv_mutex_init(orv_mutex_t* mutex);
int orv_mutex_lock(orv_mutex_t* mutex);
int orv_mutex_unlock(orv_mutex_t* mutex);
/* Frees the mutex and sets the handle to null. */
int orv_mutex_destroy(orv_mutex_t* mutex);

int orv_cond_init(orv_cond_t* cond);
int orv_cond_wait(orv_cond_t* cond, orv_mutex_t* mutex);
int orv_cond_broadcast(orv_cond_t* cond);
int orv_cond_signal(orv_cond_t* cond);
int orv_cond_destroy(orv_cond_t* cond);

/* initial_state: 1 starts signalled. manual_reset: 1 keeps the event
 * signalled until orv_event_reset, 0 lets one waiter consume it. */
int orv_event_init(orv_event_t* event, int initial_state, int manual_reset);
int orv_event_set(orv_event_t event);
int orv_event_reset(orv_event_t event);
/* 0 when signalled, non-zero when timeout_ms ran out. flags: unused. */
int orv_event_timedwait(orv_event_t event, int timeout_ms, int flags);
int orv_event_destroy(orv_event_t event);

/* stack_size 0 takes the system default. */
int orv_thread_start(orv_thread_t* thread, orv_thread_fn fn, void* arg, size_t stack_size);
int orv_thread_join(orv_thread_t thread);
void orv_thread_exit(void* result) __attribute__((noreturn));

int orv_atomic32_add_and_fetch(volatile int* value, int delta);
int orv_atomic32_sub_and_fetch(volatile int* value, int delta);

#ifdef __cplusplus
}
#endif

#endif
