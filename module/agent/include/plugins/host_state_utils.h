// The agent's common report header, filled by get_log_ctm_header_util_v2.
#ifndef WL_PLUGINS_HOST_STATE_UTILS_H
#define WL_PLUGINS_HOST_STATE_UTILS_H

#include <cstddef>
#include <cstdint>

struct log_ctm_header {
    uint64_t seq __attribute__((aligned(4)));
    char send_time[32];
    const char* host_uuid;
    const char* host_ip;
    const char* ip_list;
    unsigned char reserved[68 - 40 - 3 * sizeof(const char*)];
};

#if defined(__i386__)
static_assert(sizeof(log_ctm_header) == 68, "log_ctm_header is 68 bytes");
static_assert(offsetof(log_ctm_header, send_time) == 8, "send_time");
static_assert(offsetof(log_ctm_header, host_uuid) == 40, "host_uuid");
static_assert(offsetof(log_ctm_header, host_ip) == 44, "host_ip");
static_assert(offsetof(log_ctm_header, ip_list) == 48, "ip_list");
#endif

typedef int (*get_log_ctm_header_fn)(log_ctm_header* header);

#endif
