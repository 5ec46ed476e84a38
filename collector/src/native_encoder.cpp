#include "native_encoder.h"

#include <cstring>
#include <memory>

#include "action_records.h"
#include "event_kind.h"

namespace wlc {
namespace {

template <std::size_t N>
void put(char (&field)[N], const std::string& text) {
    std::size_t n = text.size() < N - 1 ? text.size() : N - 1;
    std::memcpy(field, text.data(), n);
    field[n] = '\0';
}

template <typename Record>
void putActor(Record& r, const ProcessInfo& p) {
    r.process_id = p.pid;
    put(r.process_guid, p.guid);
    put(r.process_path, p.path);
    put(r.process_md5, p.md5);
    put(r.process_sha256, p.sha256);
    put(r.process_cmd_line, p.cmdline);
    put(r.process_user_name, p.user);
}

template <typename Record>
std::vector<uint8_t> bytesOf(const Record& record) {
    const uint8_t* begin = reinterpret_cast<const uint8_t*>(&record);
    return std::vector<uint8_t>(begin, begin + sizeof(Record));
}

}  // namespace

std::vector<uint8_t> encodeNative(const ActionRecord& rec) {
    switch (shapeOf(rec.kind)) {
        case RecordShape::Process: {
            auto r = std::make_unique<process_event_info>();
            std::memset(r.get(), 0, sizeof(*r));
            put(r->event_name, eventName(rec.kind));
            r->event_time = rec.time;
            putActor(*r, rec.process);
            r->parent_process_id = rec.parent.pid;
            put(r->parent_process_path, rec.parent.path);
            put(r->parent_process_md5, rec.parent.md5);
            put(r->parent_process_sha256, rec.parent.sha256);
            put(r->parent_process_cmd_line, rec.parent.cmdline);
            return bytesOf(*r);
        }
        case RecordShape::File: {
            auto r = std::make_unique<file_event_info>();
            std::memset(r.get(), 0, sizeof(*r));
            put(r->event_name, eventName(rec.kind));
            r->event_time = rec.time;
            putActor(*r, rec.process);
            put(r->file_path, rec.file.path);
            put(r->file_owner, rec.file.owner);
            put(r->file_group, rec.file.group);
            put(r->file_permissions, rec.file.permissions);
            return bytesOf(*r);
        }
        case RecordShape::Net: {
            auto r = std::make_unique<net_event_info>();
            std::memset(r.get(), 0, sizeof(*r));
            put(r->event_name, eventName(rec.kind));
            r->event_time = rec.time;
            putActor(*r, rec.process);
            if (rec.kind == EventKind::DnsQuery) {
                put(r->tail.dns.query_name, rec.dns.name);
                r->tail.dns.query_status = rec.dns.status;
                put(r->tail.dns.query_result, rec.dns.result);
            } else {
                put(r->tail.connect.protocol, rec.net.protocol);
                put(r->tail.connect.dst_ip, rec.net.dstIp);
                put(r->tail.connect.src_ip, rec.net.srcIp);
                r->tail.connect.src_port = rec.net.srcPort;
                r->tail.connect.dst_port = rec.net.dstPort;
            }
            return bytesOf(*r);
        }
    }
    return {};
}

}  // namespace wlc
