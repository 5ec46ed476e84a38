/* Task push: the manager's commands reach a module as one JSON text each.
 * A handler is registered under a name; the commands for it queue up and
 * run only inside task_loop_once, on the caller's thread.
 * Transport: a Unix stream socket "@/../var/run/task_push.sock" (mode 0600).
 * A client writes a request line "<handler name> <length>\n" and then
 * <length> bytes of JSON (at most 4 MiB); the reply is "<result code>\n",
 * the code in decimal as an unsigned 32-bit number. A request that can't be
 * served is answered "ERR <reason>\n" (malformed request, too large,
 * unknown handler, busy, handler gone) and the connection closes. Only
 * root and the agent's own user are served (checked by SO_PEERCRED; others
 * are closed without a word); connections, bytes held and silences are
 * bounded (docs/architecture.md, "Local channels"). The socket exists
 * while at least one handler is registered. */
#ifndef TASK_PUSH_H
#define TASK_PUSH_H

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned int (*task_push_fn)(unsigned long ctx1, unsigned long ctx2, const char* msg, unsigned int len);
typedef void* task_handle_t;

/* Null on failure, also when the name is taken. The handle stays valid
 * until the name is unregistered. flags: unused. */
task_handle_t push_task_reg_handler(const char* name, task_push_fn fn, int flags);
int push_task_unreg_handler(const char* name);
/* Runs the tasks this handler had pending at entry. Returns how many ran,
 * -1 for a null handle or one no longer registered. */
int task_loop_once(task_handle_t handle);

/* In-process submission, for the agent and for tests: queues msg for the
 * named handler. When result is not null, *result receives the code once the
 * task ran (and *done becomes 1; -1 if the handler was unregistered first).
 * 0 when queued, -1 when no such handler. */
int push_task_submit(const char* name, const char* msg, unsigned int len, unsigned int* result, volatile int* done);

/* Socket path used by the transport, "@" resolved; the text stays valid on
 * the calling thread until its next call. */
const char* push_task_socket_path(void);

#ifdef __cplusplus
}
#endif

#endif
