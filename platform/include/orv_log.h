/* Logging services of the agent's base library. */
#ifndef ORV_LOG_H
#define ORV_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* error_output levels: 1 error, 2 warning, 3 information, 4 detail. */
enum { LOG_LVL_ERROR = 1, LOG_LVL_WARN = 2, LOG_LVL_INFO = 3, LOG_LVL_DETAIL = 4 };

/* orv_log_output levels: 0 ERROR, 1 WARN, 2 INFO, 3 DEBUG. */
enum { ORV_LOG_ERROR = 0, ORV_LOG_WARN = 1, ORV_LOG_INFO = 2, ORV_LOG_DEBUG = 3 };

/* Non-zero when a message of this level (1..4) would be written. */
int error_output_check(int level);
void error_output(int level, const char* source, int line, const char* fmt, ...) __attribute__((format(printf, 4, 5)));

/* The format carries its own prefix, "[PID:%-5ld]\t[LEVEL]\t%-10s [%s(%d)] ",
 * fed by the pid, tag, source and line arguments that follow it. */
void orv_log_output(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

/* Creates dir and binds the calling thread's output to
 * "<dir>/<last component of dir>.log", with size-based rotation. Threads
 * without a binding write to the first file ever opened this way. A thread
 * that is bound already keeps its file (returns 0). flags are
 * kept for the agent's contract and unused. Returns 0 on success. */
int autolog_init(const char* dir, int flags);
/* Releases the calling thread's binding; a file closes with its last user. */
void autolog_deinit(void);

/* Threshold 0..4: messages above it are dropped. The initial value comes
 * from the environment variable WL_LOG_LEVEL, else 3. */
void error_output_set_level(int level);
int error_output_get_level(void);

/* Maximum size of one log file before it is rotated to ".1". */
void autolog_set_max_size(long bytes);

/* Every message that passes the threshold is also handed to the sink, with
 * the level as 1..4, the source name and the text without the file prefix.
 * Used by tests to read what the module logged. A null sink removes it.
 * Sink calls are serialized, and log_set_sink returns only when no call to
 * the old sink is in flight, so its owner may then free it. */
typedef void (*log_sink_fn)(int level, const char* source, const char* text, void* user);
void log_set_sink(log_sink_fn sink, void* user);

/* When non-zero, messages are also written to standard error. */
void log_set_stderr(int on);

#ifdef __cplusplus
}
#endif

#endif
