// The telemetry bridge and the collector's entry onto the bus.
#ifndef WL_WHITELIST_MB_H
#define WL_WHITELIST_MB_H

#include <cstddef>
#include <cstdint>

#include "vrccl_action.h"

typedef void (*wl_rasp_callback)(const char* text);

extern "C" {
// 1 when the publisher is attached (or no bus library is installed), 0 on failure.
int whitelist_msgbus_init(void);
// No result: detaches the publisher.
void whitelist_msgbus_uninit(void);
// 0 on success; the registration's result, or -1 when the telemetry library or
// its entry is missing. user is passed through, never dereferenced.
int whitelist_init_rasp_handler(wl_rasp_callback callback, void* user);
// No result: publishes a copy of the zero-terminated text; text stays the caller's.
void transmit_rasp_data(const char* text);
// No result: publishes a copy of msg's payload; msg stays the caller's.
void transmit_action_data(const action_collector_msg* msg);
// The engines' queue counters as a JSON object, for the agent's status: the
// length written, or the size needed (nothing written) when size is too small.
// The buffer stays the caller's.
int whitelist_counters_json(char* out, int size);
}

#endif
