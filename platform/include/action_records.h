// Native records of the action collector, as it hands them over: fixed
// arrays of narrow text, each terminated by a zero byte, at fixed byte
// offsets. Only the fields the module reads are named; the rest belongs to
// the sender and is zero. The same layout on every architecture.
#ifndef ACTION_RECORDS_H
#define ACTION_RECORDS_H

#include <stddef.h>
#include <stdint.h>

#pragma pack(push, 1)

struct process_event_info {
    char head[32];
    char event_name[64];
    uint64_t event_time;
    char reserved0[7352 - 104];
    int32_t process_id;
    char reserved1[7404 - 7356];
    char process_guid[32];
    char process_path[1025];
    char process_md5[33];
    char process_sha256[65];
    char process_cmd_line[1025];
    char process_user_name[68];
    int32_t parent_process_id;
    char reserved2[9688 - 9656];
    char parent_process_path[1025];
    char parent_process_md5[33];
    char parent_process_sha256[65];
    char parent_process_cmd_line[1025];
};

struct file_event_info {
    char head[32];
    char event_name[64];
    uint64_t event_time;
    char reserved0[7352 - 104];
    int32_t process_id;
    char reserved1[7364 - 7356];
    char process_guid[32];
    char process_path[1025];
    char process_md5[33];
    char process_sha256[65];
    char process_cmd_line[1025];
    char process_user_name[66];
    char file_path[4096];
    char file_owner[33];
    char file_group[33];
    char file_permissions[128];
};

struct net_connect_tail {
    char protocol[4];
    char dst_ip[16];
    char src_ip[16];
    uint16_t src_port;
    uint16_t dst_port;
};

struct net_dns_tail {
    char query_name[66];
    uint32_t query_status;
    char query_result[1025];
};

struct net_event_info {
    char head[36];
    char event_name[64];
    uint64_t event_time;
    char reserved0[7356 - 108];
    int32_t process_id;
    char reserved1[7368 - 7360];
    char process_guid[32];
    char process_path[1025];
    char process_md5[33];
    char process_sha256[65];
    char process_cmd_line[1025];
    char process_user_name[66];
    union {
        net_connect_tail connect;  // connection, and listening port
        net_dns_tail dns;
    } tail;
};

#pragma pack(pop)

static_assert(offsetof(process_event_info, event_time) == 96, "process event_time");
static_assert(offsetof(process_event_info, process_id) == 7352, "process pid");
static_assert(offsetof(process_event_info, process_guid) == 7404, "process guid");
static_assert(offsetof(process_event_info, process_path) == 7436, "process path");
static_assert(offsetof(process_event_info, process_md5) == 8461, "process md5");
static_assert(offsetof(process_event_info, process_sha256) == 8494, "process sha256");
static_assert(offsetof(process_event_info, process_cmd_line) == 8559, "process cmd line");
static_assert(offsetof(process_event_info, process_user_name) == 9584, "process user");
static_assert(offsetof(process_event_info, parent_process_id) == 9652, "parent pid");
static_assert(offsetof(process_event_info, parent_process_path) == 9688, "parent path");
static_assert(offsetof(process_event_info, parent_process_md5) == 10713, "parent md5");
static_assert(offsetof(process_event_info, parent_process_sha256) == 10746, "parent sha256");
static_assert(offsetof(process_event_info, parent_process_cmd_line) == 10811, "parent cmd line");

static_assert(offsetof(file_event_info, event_time) == 96, "file event_time");
static_assert(offsetof(file_event_info, process_id) == 7352, "file pid");
static_assert(offsetof(file_event_info, process_guid) == 7364, "file guid");
static_assert(offsetof(file_event_info, process_path) == 7396, "file actor path");
static_assert(offsetof(file_event_info, process_md5) == 8421, "file actor md5");
static_assert(offsetof(file_event_info, process_sha256) == 8454, "file actor sha256");
static_assert(offsetof(file_event_info, process_cmd_line) == 8519, "file actor cmd line");
static_assert(offsetof(file_event_info, process_user_name) == 9544, "file actor user");
static_assert(offsetof(file_event_info, file_path) == 9610, "file path");
static_assert(offsetof(file_event_info, file_owner) == 13706, "file owner");
static_assert(offsetof(file_event_info, file_group) == 13739, "file group");
static_assert(offsetof(file_event_info, file_permissions) == 13772, "file permissions");

static_assert(offsetof(net_event_info, event_name) == 36, "net event name");
static_assert(offsetof(net_event_info, event_time) == 100, "net event_time");
static_assert(offsetof(net_event_info, process_id) == 7356, "net pid");
static_assert(offsetof(net_event_info, process_guid) == 7368, "net guid");
static_assert(offsetof(net_event_info, process_path) == 7400, "net path");
static_assert(offsetof(net_event_info, process_md5) == 8425, "net md5");
static_assert(offsetof(net_event_info, process_sha256) == 8458, "net sha256");
static_assert(offsetof(net_event_info, process_cmd_line) == 8523, "net cmd line");
static_assert(offsetof(net_event_info, process_user_name) == 9548, "net user");
static_assert(offsetof(net_event_info, tail) == 9614, "net tail");
static_assert(offsetof(net_event_info, tail.connect.dst_ip) == 9618, "net dst ip");
static_assert(offsetof(net_event_info, tail.connect.src_ip) == 9634, "net src ip");
static_assert(offsetof(net_event_info, tail.connect.src_port) == 9650, "net src port");
static_assert(offsetof(net_event_info, tail.connect.dst_port) == 9652, "net dst port");
static_assert(offsetof(net_event_info, tail.dns.query_status) == 9680, "dns status");
static_assert(offsetof(net_event_info, tail.dns.query_result) == 9684, "dns result");

// The collector's action types (the bus's sub_type), by record kind.
enum action_sub_type {
    ACTION_FILE_CREATION = 1026,
    ACTION_PROCESS_CREATION = 1027,
    ACTION_NETWORK_CONNECTION = 1029,
    ACTION_DNS_QUERY = 1030,
    ACTION_PORT_LISTENING = 1031,
    ACTION_FILE_MODIFICATION = 1044,
    ACTION_FILE_DELETION = 1045,
    ACTION_FILE_RENAMING = 1046,
    ACTION_FILE_TIME_MODIFICATION = 1054,
};

#endif
