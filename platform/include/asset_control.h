/* Control of the scriptable asset store, for tests and tools. */
#ifndef ASSET_CONTROL_H
#define ASSET_CONTROL_H

#ifdef __cplusplus
extern "C" {
#endif

/* The wall clock the ages are measured with, in seconds; null restores
 * time(). */
typedef long long (*asset_clock_fn)(void);
void asset_control_set_clock(asset_clock_fn clock);
/* Forgets every published kind (files stay). */
void asset_control_reset(void);

#ifdef __cplusplus
}
#endif

#endif
