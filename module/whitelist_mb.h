// The telemetry bridge and the collector's entry onto the bus.
#ifndef WL_WHITELIST_MB_H
#define WL_WHITELIST_MB_H

#include <cstddef>
#include <cstdint>

#include "vrccl_action.h"

typedef void (*wl_rasp_callback)(const char* text);

extern "C" {
// 1 on success, 0 on failure.
int whitelist_msgbus_init(void);
void whitelist_msgbus_uninit(void);
// 0 on success; the registration's result, or -1.
int whitelist_init_rasp_handler(wl_rasp_callback callback, void* user);
void transmit_rasp_data(const char* text);
void transmit_action_data(const action_collector_msg* msg);
// The engines' queue counters as a JSON object, for the agent's status: the
// length written, or the size needed (nothing written) when size is too small.
// The buffer stays the caller's.
int whitelist_counters_json(char* out, int size);
}

#endif
