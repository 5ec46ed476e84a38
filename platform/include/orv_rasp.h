/* Runtime-application telemetry: texts from probes inside applications. */
#ifndef ORV_RASP_H
#define ORV_RASP_H

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*orv_rasp_tele_fn)(const char* text);

/* From then on calls callback with each telemetry text, NUL-terminated, on
 * the receiving thread. 0 on success. */
int orv_rasp_reg_tele_callback(orv_rasp_tele_fn callback, void* user);

/* For the operator's tools (found with dlsym): writes a compact JSON object
 * and its NUL into out: "connections" (accepted), "active", "refused_peers"
 * (credentials refused), "refused_busy" (over the connection limits),
 * "refused_pid" (lines speaking for another process, or naming none),
 * "lines" (handed on), "dropped_lines" (blank, malformed, nested too deep,
 * cut off by a close, or no callback), "oversize_lines", "idle_closed",
 * "overflow_closed", "errors". Returns the length written (without the
 * NUL). When size is too small, writes nothing and returns the size needed,
 * NUL included: a result >= size means "call again with this much". -1 when
 * out of memory. */
int orv_rasp_counters_json(char* out, int size);

#ifdef __cplusplus
}
#endif

#endif
