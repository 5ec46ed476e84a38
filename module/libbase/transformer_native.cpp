// Collector records (narrow, fixed offsets) into _BASE_EVENTINFO (wide).
#include <cstring>

#include "transformer.h"
#include "transformer_tables.h"

namespace {

// A native text ends at its zero byte. The read never runs past the end of
// the native record, which the publisher guarantees to be there.
template <typename Native>
std::string nativeText(const Native& native, const char* field) {
    const char* end = reinterpret_cast<const char*>(&native) + sizeof(Native);
    return std::string(field, strnlen(field, static_cast<std::size_t>(end - field)));
}

uint64_t signExtendedPid(int32_t pid) { return static_cast<uint64_t>(static_cast<int64_t>(pid)); }

// First step of the three conversions: the name decides whether the record
// is touched at all.
bool setKindAndTime(const std::map<std::string, int>& table, const std::string& name, wl_u64 time,
                    _BASE_EVENTINFO& event) {
    auto found = table.find(name);
    if (found == table.end()) return false;
    event.event_type = static_cast<uint16_t>(found->second);
    event.event_time = time;
    return true;
}

// The acting process, laid out alike in file and network records.
template <typename Native>
void fillActor(const Native& native, _BASE_PROCESSES_INFO& actor) {
    actor.process_id = signExtendedPid(native.process_id);
    stringToWchart(actor.process_sha256, 128, nativeText(native, native.process_sha256));
    stringToWchart(actor.process_guid, 40, nativeText(native, native.process_guid));
    stringToWchart(actor.process_path, 260, nativeText(native, native.process_path));
    stringToWchart(actor.process_md5, 33, nativeText(native, native.process_md5));
    stringToWchart(actor.process_cmd_line, 1024, nativeText(native, native.process_cmd_line));
    stringToWchart(actor.process_user_name, 128, nativeText(native, native.process_user_name));
}

}  // namespace

bool Transformer::TransformProcessMsg(const process_event_info& native, _BASE_EVENTINFO& event) {
    if (!setKindAndTime(eventTypeMap, nativeText(native, native.event_name), native.event_time, event)) return false;

    _BASE_PROCESSES_INFO& child = event.detail.process;
    child.process_id = signExtendedPid(native.process_id);
    stringToWchart(child.process_sha256, 128, nativeText(native, native.process_sha256));
    stringToWchart(child.process_guid, 40, nativeText(native, native.process_guid));
    stringToWchart(child.process_path, 260, nativeText(native, native.process_path));
    stringToWchart(child.process_md5, 33, nativeText(native, native.process_md5));
    stringToWchart(child.process_cmd_line, 1024, nativeText(native, native.process_cmd_line));
    stringToWchart(child.process_user_name, 128, nativeText(native, native.process_user_name));

    _BASE_PROCESSES_INFO& parent = event.process_info;
    parent.process_id = signExtendedPid(native.parent_process_id);
    stringToWchart(parent.process_path, 260, nativeText(native, native.parent_process_path));
    stringToWchart(parent.process_md5, 33, nativeText(native, native.parent_process_md5));
    stringToWchart(parent.process_cmd_line, 1024, nativeText(native, native.parent_process_cmd_line));
    stringToWchart(parent.process_sha256, 128, nativeText(native, native.parent_process_sha256));
    return true;
}

bool Transformer::TransformFileMsg(const file_event_info& native, _BASE_EVENTINFO& event) {
    if (!setKindAndTime(eventTypeMap, nativeText(native, native.event_name), native.event_time, event)) return false;

    _BASE_FILES_INFO& file = event.detail.file;
    // The canonical name, not the one on the wire: "mysql" shares number 7.
    if (const char* name = canonicalFileEventName(event.event_type)) stringToWchart(file.file_event_name, 260, name);

    fillActor(native, event.process_info);
    stringToWchart(file.file_name, 260, nativeText(native, native.file_path));
    stringToWchart(file.file_group_name, 128, nativeText(native, native.file_group));
    stringToWchart(file.file_user_name, 128, nativeText(native, native.file_owner));
    stringToWchart(file.file_permissions, 128, nativeText(native, native.file_permissions));

    std::memset(file.file_reserved_time, 0, sizeof(file.file_reserved_time));
    std::memset(file.file_reserved_block, 0, sizeof(file.file_reserved_block));
    file.file_reserved_word = 0;
    stringToWchart(file.file_reserved_text, 256, "");
    stringToWchart(file.file_reserved_name, 33, "");
    return true;
}

bool Transformer::TransformNetEvent(const net_event_info& native, _BASE_EVENTINFO& event) {
    if (!setKindAndTime(eventTypeMap, nativeText(native, native.event_name), native.event_time, event)) return false;

    switch (event.event_type) {
        case WL_EVENT_DNS_QUERY: TransformDnsEvent(native, event); break;
        case WL_EVENT_PORT_LISTENING: TransformPortEvent(native, event); break;
        case WL_EVENT_NETWORK_CONNECTION: TransformConnectEvent(native, event); break;
        default: break;
    }
    return true;
}

void Transformer::TransformDnsEvent(const net_event_info& native, _BASE_EVENTINFO& event) {
    fillActor(native, event.process_info);
    _BASE_DNS_INFO& dns = event.detail.dns;
    dns.query_status = native.tail.dns.query_status;
    stringToWchart(dns.query_name, 512, nativeText(native, native.tail.dns.query_name));
    stringToWchart(dns.query_result, 256, nativeText(native, native.tail.dns.query_result));
}

void Transformer::TransformPortEvent(const net_event_info& native, _BASE_EVENTINFO& event) {
    fillActor(native, event.process_info);
    _BASE_LISTEN_INFO& listen = event.detail.listen;
    listen.port = native.tail.connect.dst_port;
    stringToWchart(listen.address, 32, nativeText(native, native.tail.connect.dst_ip));
    stringToWchart(listen.protocol, 4, nativeText(native, native.tail.connect.protocol));
}

void Transformer::TransformConnectEvent(const net_event_info& native, _BASE_EVENTINFO& event) {
    fillActor(native, event.process_info);
    _BASE_CONNECT_INFO& connect = event.detail.connect;
    connect.dst_port = native.tail.connect.dst_port;
    connect.src_port = native.tail.connect.src_port;
    stringToWchart(connect.dst_ip, 32, nativeText(native, native.tail.connect.dst_ip));
    stringToWchart(connect.src_ip, 32, nativeText(native, native.tail.connect.src_ip));
    stringToWchart(connect.protocol, 4, nativeText(native, native.tail.connect.protocol));
}
