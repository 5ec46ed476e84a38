/* Per-thread event loops. A thread made by cl_ev_create_isolated_thread owns
 * a loop; timers started on it, and IPC callbacks addressed to it, run only
 * on that thread, from inside cl_ev_loop_nowait and cl_event_loop_once. */
#ifndef CL_EV_H
#define CL_EV_H

#ifdef __cplusplus
extern "C" {
#endif

typedef void* (*cl_ev_thread_fn)(void*);
typedef void (*cl_timer_fn)(void);
typedef void (*cl_task_fn)(void* arg);
typedef void* cl_ev_loop_t;
typedef void* cl_timer_t;

/* Starts fn(arg) on a new detached thread that owns a loop. Returns 0, or -1
 * when the thread can't be made. flags: unused. */
int cl_ev_create_isolated_thread(unsigned long* thread_id, int flags, cl_ev_thread_fn fn, void* arg);

/* Runs what the calling thread's loop has ready, without blocking. Both
 * return the number of callbacks run, -1 when the thread owns no loop. */
int cl_ev_loop_nowait(int flags);
int cl_event_loop_once(void);

/* The calling thread's loop, made on first use. */
cl_ev_loop_t cl_ev_current_loop(void);
/* Queues fn(arg) to run on the loop's thread at its next pump. Any thread.
 * 0 on success. */
int cl_ev_post(cl_ev_loop_t loop, cl_task_fn fn, void* arg);
/* As cl_ev_post, for an arg that the task owns: when the task will never run
 * (the loop is gone now, or goes before its next pump) discard(arg) is
 * called instead, on the thread that finds out. -1 when it was discarded at
 * once. */
int cl_ev_post_owned(cl_ev_loop_t loop, cl_task_fn fn, cl_task_fn discard, void* arg);

/* A repeating timer on the calling thread's loop; first firing one period
 * from now. A pump that finds it late fires it once and schedules the next
 * firing one period later, so a jump of the clock causes no burst.
 * loop and flags: unused (0). Null on failure (no callback, period 0). */
cl_timer_t cl_timerplus_start(void* loop, int flags, unsigned int period_ms, cl_timer_fn callback, void* reserved);
/* Any thread, also from inside a timer callback. 0, or -1 for a handle that
 * isn't running. */
int cl_timerplus_close(cl_timer_t timer);

/* The clock the loops read, in milliseconds. Tests replace it to make time
 * pass at once; null restores the monotonic clock. */
typedef unsigned long long (*cl_ev_clock_fn)(void);
void cl_ev_set_clock(cl_ev_clock_fn clock);

#ifdef __cplusplus
}
#endif

#endif
