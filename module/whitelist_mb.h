// The telemetry bridge and the collector's entry onto the bus.
#ifndef WL_WHITELIST_MB_H
#define WL_WHITELIST_MB_H

#include <cstddef>
#include <cstdint>

// The collector's record. Only type, size and the payload are read; the rest
// belongs to the collector.
struct action_collector_msg {
    unsigned char header[264];
    int32_t type;  // published as the event's sub_type
    uint32_t reserved0;
    uint32_t size;  // bytes of payload
    uint32_t reserved1;
    unsigned char payload[1];  // size bytes from here on
};
static_assert(offsetof(action_collector_msg, type) == 264, "action type at byte 264");
static_assert(offsetof(action_collector_msg, size) == 272, "payload size at byte 272");
static_assert(offsetof(action_collector_msg, payload) == 280, "payload at byte 280");

typedef void (*wl_rasp_callback)(const char* text);

extern "C" {
// 1 on success, 0 on failure.
int whitelist_msgbus_init(void);
void whitelist_msgbus_uninit(void);
// 0 on success; the registration's result, or -1.
int whitelist_init_rasp_handler(wl_rasp_callback callback, void* user);
void transmit_rasp_data(const char* text);
void transmit_action_data(const action_collector_msg* msg);
}

#endif
