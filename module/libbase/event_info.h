// Event records exchanged with the model library, and the collector's native
// records. Every layout here is a contract: the library is built against these
// exact offsets, so each one is pinned by a compile-time assert.
#ifndef WL_EVENT_INFO_H
#define WL_EVENT_INFO_H

#include <wchar.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "action_records.h"

// 64-bit integers sit on 4-byte boundaries, as the 32-bit build lays them out,
// so that _BASE_EVENTINFO is byte-identical in every build.
typedef uint64_t __attribute__((aligned(4))) wl_u64;

static_assert(sizeof(wchar_t) == 4, "wide text elements are 32 bits");

// The host events' numbers, _BASE_EVENTINFO::event_type.
enum {
    WL_EVENT_PROCESS_CREATION = 1,
    WL_EVENT_FILE_CREATION = 6,
    WL_EVENT_FILE_MODIFICATION = 7,
    WL_EVENT_FILE_DELETION = 8,
    WL_EVENT_FILE_RENAMING = 9,
    WL_EVENT_FILE_TIME_MODIFICATION = 10,
    WL_EVENT_NETWORK_CONNECTION = 15,
    WL_EVENT_DNS_QUERY = 16,
    WL_EVENT_PORT_LISTENING = 17,
};

// The runtime-application actions' numbers, _RASP_EVENTINFO::action_type;
// they overlap the host events'.
enum {
    WL_ACTION_DNS = 0,
    WL_ACTION_ADDRESS = 1,
    WL_ACTION_EXECUTE = 2,
    WL_ACTION_WRITE = 3,
    WL_ACTION_READ = 4,
    WL_ACTION_DELETE = 5,
    WL_ACTION_HSQL = 6,
    WL_ACTION_MYSQL = 7,
    WL_ACTION_ORACLE = 8,
    WL_ACTION_POSTGRE = 9,
    WL_ACTION_SQLSERVER = 10,
};

#pragma pack(push, 4)

struct _BASE_PROCESSES_INFO {
    wl_u64 process_id;
    unsigned char reserved0[1040];
    wchar_t process_guid[40];
    wchar_t process_path[260];
    unsigned char reserved1[1040];
    wchar_t process_md5[33];
    wchar_t process_sha256[128];
    unsigned char reserved2[1040];
    wchar_t process_cmd_line[1024];
    unsigned char reserved3[4096];
    wchar_t process_user_name[128];
    unsigned char reserved4[9440];
};

struct _BASE_FILES_INFO {
    wchar_t file_event_name[260];
    unsigned char reserved0[512];
    wchar_t prev_file_name[320];
    wchar_t file_md5[33];
    unsigned char reserved1[512];
    wchar_t file_user_name[128];
    wchar_t file_name[260];
    wchar_t file_reserved_name[33];
    wchar_t file_group_name[128];
    wchar_t file_permissions[128];
    wchar_t file_reserved_text[256];
    unsigned char file_reserved_time[8];
    unsigned char file_reserved_block[16];
    uint16_t file_reserved_word;
};

struct _BASE_CONNECT_INFO {
    uint32_t dst_port;
    uint32_t src_port;
    wchar_t dst_ip[32];
    wchar_t src_ip[32];
    wchar_t protocol[4];
};

struct _BASE_DNS_INFO {
    uint32_t query_status;
    wchar_t query_name[512];
    wchar_t query_result[256];
};

struct _BASE_LISTEN_INFO {
    wchar_t address[32];
    wchar_t protocol[4];
    uint32_t port;
};

union _BASE_EVENT_DETAIL {
    _BASE_PROCESSES_INFO process;  // WL_EVENT_PROCESS_CREATION: the new process
    _BASE_FILES_INFO file;         // WL_EVENT_FILE_*
    _BASE_CONNECT_INFO connect;    // WL_EVENT_NETWORK_CONNECTION
    _BASE_DNS_INFO dns;            // WL_EVENT_DNS_QUERY
    _BASE_LISTEN_INFO listen;      // WL_EVENT_PORT_LISTENING
};

struct _BASE_EVENTINFO {
    wl_u64 event_time;
    uint16_t event_type;
    uint16_t reserved0;
    _BASE_PROCESSES_INFO process_info;  // the acting process; the parent for WL_EVENT_PROCESS_CREATION
    _BASE_EVENT_DETAIL detail;
    // Result fields, written by the model library.
    uint8_t origin_log_flag;
    uint8_t reserved1;
    uint16_t delay_gate;
    uint16_t match_verdict;
    unsigned char reserved2[12290];
    wchar_t model_status[1024];
    wchar_t model_name[128];
    unsigned char reserved3[3584];
};

#pragma pack(pop)

static_assert(sizeof(_BASE_PROCESSES_INFO) == 23116, "process block size");
static_assert(offsetof(_BASE_PROCESSES_INFO, process_guid) == 1048, "process_guid");
static_assert(offsetof(_BASE_PROCESSES_INFO, process_path) == 1208, "process_path");
static_assert(offsetof(_BASE_PROCESSES_INFO, process_md5) == 3288, "process_md5");
static_assert(offsetof(_BASE_PROCESSES_INFO, process_sha256) == 3420, "process_sha256");
static_assert(offsetof(_BASE_PROCESSES_INFO, process_cmd_line) == 4972, "process_cmd_line");
static_assert(offsetof(_BASE_PROCESSES_INFO, process_user_name) == 13164, "process_user_name");

static_assert(offsetof(_BASE_FILES_INFO, prev_file_name) == 1552, "prev_file_name");
static_assert(offsetof(_BASE_FILES_INFO, file_md5) == 2832, "file_md5");
static_assert(offsetof(_BASE_FILES_INFO, file_user_name) == 3476, "file_user_name");
static_assert(offsetof(_BASE_FILES_INFO, file_name) == 3988, "file_name");
static_assert(offsetof(_BASE_FILES_INFO, file_reserved_name) == 5028, "file_reserved_name");
static_assert(offsetof(_BASE_FILES_INFO, file_group_name) == 5160, "file_group_name");
static_assert(offsetof(_BASE_FILES_INFO, file_permissions) == 5672, "file_permissions");
static_assert(offsetof(_BASE_FILES_INFO, file_reserved_text) == 6184, "file_reserved_text");
static_assert(offsetof(_BASE_FILES_INFO, file_reserved_time) == 7208, "file_reserved_time");
static_assert(offsetof(_BASE_FILES_INFO, file_reserved_block) == 7216, "file_reserved_block");
static_assert(offsetof(_BASE_FILES_INFO, file_reserved_word) == 7232, "file_reserved_word");

static_assert(offsetof(_BASE_CONNECT_INFO, dst_ip) == 8, "dst_ip");
static_assert(offsetof(_BASE_CONNECT_INFO, src_ip) == 136, "src_ip");
static_assert(offsetof(_BASE_CONNECT_INFO, protocol) == 264, "connect protocol");
static_assert(offsetof(_BASE_DNS_INFO, query_name) == 4, "query_name");
static_assert(offsetof(_BASE_DNS_INFO, query_result) == 2052, "query_result");
static_assert(offsetof(_BASE_LISTEN_INFO, protocol) == 128, "listen protocol");
static_assert(offsetof(_BASE_LISTEN_INFO, port) == 144, "listen port");
static_assert(sizeof(_BASE_EVENT_DETAIL) == 23116, "detail union size");

static_assert(sizeof(_BASE_EVENTINFO) == 66732, "_BASE_EVENTINFO size");
static_assert(offsetof(_BASE_EVENTINFO, event_type) == 8, "event_type");
static_assert(offsetof(_BASE_EVENTINFO, process_info) == 12, "process_info");
static_assert(offsetof(_BASE_EVENTINFO, detail) == 23128, "detail");
static_assert(offsetof(_BASE_EVENTINFO, origin_log_flag) == 46244, "origin_log_flag");
static_assert(offsetof(_BASE_EVENTINFO, delay_gate) == 46246, "delay_gate");
static_assert(offsetof(_BASE_EVENTINFO, match_verdict) == 46248, "match_verdict");
static_assert(offsetof(_BASE_EVENTINFO, model_status) == 58540, "model_status");
static_assert(offsetof(_BASE_EVENTINFO, model_name) == 62636, "model_name");
static_assert(offsetof(_BASE_EVENTINFO, detail) + offsetof(_BASE_CONNECT_INFO, dst_ip) == 23136, "dst_ip in record");

// One event of a runtime-application probe. The 32-bit build's offsets are
// the contract (each std::string one pointer wide there).
struct _RASP_EVENTINFO {
    wl_u64 time;
    wl_u64 pid;
    uint16_t action_type;
    std::string type;
    std::string action;
    std::string headers;
    std::string param;
    std::string spare0;
    std::string action_data;
    std::string url;
    std::string method;
    std::string body;
    std::string appCmd;
    std::string spare1[6];
    std::string protocol;
    std::string ip;
    std::string dst_ip;
    wl_u64 srcPort;
    wl_u64 spare2;  // copied, never cleared nor written
    std::string port;
    std::string hostName;
    std::string file_path;
    std::string spare3[3];
    wl_u64 spare4[3];
    std::string dns_name;
    std::string sql_text;
    uint8_t origin_log_flag;
    uint16_t match_verdict;
    std::string model_status;
    std::string model_name;
};

#if defined(__i386__)
static_assert(sizeof(std::string) == 4, "the 32-bit build uses the one-pointer string ABI");
static_assert(sizeof(_RASP_EVENTINFO) == 180, "_RASP_EVENTINFO size");
static_assert(offsetof(_RASP_EVENTINFO, action_type) == 16, "action_type");
static_assert(offsetof(_RASP_EVENTINFO, type) == 20, "type");
static_assert(offsetof(_RASP_EVENTINFO, spare0) == 36, "spare0");
static_assert(offsetof(_RASP_EVENTINFO, action_data) == 40, "action_data");
static_assert(offsetof(_RASP_EVENTINFO, appCmd) == 56, "appCmd");
static_assert(offsetof(_RASP_EVENTINFO, spare1) == 60, "spare1");
static_assert(offsetof(_RASP_EVENTINFO, protocol) == 84, "protocol");
static_assert(offsetof(_RASP_EVENTINFO, dst_ip) == 92, "dst_ip");
static_assert(offsetof(_RASP_EVENTINFO, srcPort) == 96, "srcPort");
static_assert(offsetof(_RASP_EVENTINFO, spare2) == 104, "spare2");
static_assert(offsetof(_RASP_EVENTINFO, port) == 112, "port");
static_assert(offsetof(_RASP_EVENTINFO, hostName) == 116, "hostName");
static_assert(offsetof(_RASP_EVENTINFO, file_path) == 120, "file_path");
static_assert(offsetof(_RASP_EVENTINFO, spare3) == 124, "spare3");
static_assert(offsetof(_RASP_EVENTINFO, spare4) == 136, "spare4");
static_assert(offsetof(_RASP_EVENTINFO, dns_name) == 160, "dns_name");
static_assert(offsetof(_RASP_EVENTINFO, sql_text) == 164, "sql_text");
static_assert(offsetof(_RASP_EVENTINFO, origin_log_flag) == 168, "origin_log_flag");
static_assert(offsetof(_RASP_EVENTINFO, match_verdict) == 170, "match_verdict");
static_assert(offsetof(_RASP_EVENTINFO, model_status) == 172, "model_status");
static_assert(offsetof(_RASP_EVENTINFO, model_name) == 176, "model_name");
#endif

// The largest native record; a payload handed to a conversion must be at least
// this long (shorter ones are zero-padded by the publisher).
constexpr std::size_t kNativeRecordMaxSize =
    sizeof(file_event_info) > sizeof(process_event_info)
        ? (sizeof(file_event_info) > sizeof(net_event_info) ? sizeof(file_event_info) : sizeof(net_event_info))
        : (sizeof(process_event_info) > sizeof(net_event_info) ? sizeof(process_event_info) : sizeof(net_event_info));

// Order of the records of an origin log: by event_type, ascending.
bool comp(const _BASE_EVENTINFO& left, const _BASE_EVENTINFO& right);

#endif
