/* Counters of the message bus library, for the operator's tools (looked up
 * with dlsym in libtulmb). */
#ifndef TULMB_COUNTERS_H
#define TULMB_COUNTERS_H

#ifdef __cplusplus
extern "C" {
#endif

/* Writes a compact JSON object and its NUL into out: "published",
 * "delivered", "dropped_full_events", "dropped_full_bytes", "queued_events",
 * "queued_bytes", "delivery_errors", and "events", the same per event ID
 * ({"19":{"published":..,"delivered":..,"dropped":..,"delivery_errors":..}}).
 * Returns the length written (without the NUL). When size is too small,
 * writes nothing and returns the size needed, NUL included, so a result
 * >= size means "call again with a buffer this large". -1 when out of
 * memory. */
int tulmb_counters_json(char* out, int size);

#ifdef __cplusplus
}
#endif

#endif
