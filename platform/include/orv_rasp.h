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

#ifdef __cplusplus
}
#endif

#endif
