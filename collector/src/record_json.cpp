#include "record_json.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstring>

#include "event_kind.h"

namespace wlc {
namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void field(Writer& w, const char* key, const std::string& value) {
    w.Key(key);
    w.String(value.c_str(), static_cast<rapidjson::SizeType>(value.size()));
}

void writeProcess(Writer& w, const char* key, const ProcessInfo& p) {
    w.Key(key);
    w.StartObject();
    w.Key("pid");
    w.Int(p.pid);
    if (!p.guid.empty()) field(w, "guid", p.guid);
    field(w, "path", p.path);
    field(w, "cmdline", p.cmdline);
    field(w, "user", p.user);
    field(w, "md5", p.md5);
    field(w, "sha256", p.sha256);
    w.EndObject();
}

// Reading: a missing key keeps the default; a key of the wrong type is an
// error, so a hand-edited file cannot be half-read without notice.
class Reader {
public:
    explicit Reader(std::string& error) : m_error(error) {}

    bool text(const rapidjson::Value& object, const char* key, std::string& out) {
        auto it = object.FindMember(key);
        if (it == object.MemberEnd()) return true;
        if (!it->value.IsString()) return fail(key, "a string");
        out.assign(it->value.GetString(), it->value.GetStringLength());
        return true;
    }

    template <typename Int>
    bool number(const rapidjson::Value& object, const char* key, Int& out, int64_t low, int64_t high) {
        auto it = object.FindMember(key);
        if (it == object.MemberEnd()) return true;
        if (!it->value.IsInt64() || it->value.GetInt64() < low || it->value.GetInt64() > high)
            return fail(key, "an integer in range");
        out = static_cast<Int>(it->value.GetInt64());
        return true;
    }

    const rapidjson::Value* object(const rapidjson::Value& parent, const char* key) {
        auto it = parent.FindMember(key);
        if (it == parent.MemberEnd()) return &m_empty;
        if (!it->value.IsObject()) {
            fail(key, "an object");
            return nullptr;
        }
        return &it->value;
    }

    bool process(const rapidjson::Value& parent, const char* key, ProcessInfo& p) {
        const rapidjson::Value* o = object(parent, key);
        return o && number(*o, "pid", p.pid, INT32_MIN, INT32_MAX) && text(*o, "guid", p.guid) &&
               text(*o, "path", p.path) && text(*o, "cmdline", p.cmdline) && text(*o, "user", p.user) &&
               text(*o, "md5", p.md5) && text(*o, "sha256", p.sha256);
    }

    bool fail(const char* key, const char* want) {
        m_error = std::string("\"") + key + "\" must be " + want;
        return false;
    }

private:
    std::string& m_error;
    rapidjson::Value m_empty{rapidjson::kObjectType};
};

}  // namespace

std::string recordToJson(const ActionRecord& r) {
    rapidjson::StringBuffer buffer;
    Writer w(buffer);
    w.StartObject();
    w.Key("sub_type");
    w.Uint(subTypeOf(r.kind));
    w.Key("event");
    w.String(eventName(r.kind));
    w.Key("time");
    w.Uint64(r.time);
    writeProcess(w, "process", r.process);
    switch (shapeOf(r.kind)) {
        case RecordShape::Process: writeProcess(w, "parent", r.parent); break;
        case RecordShape::File:
            w.Key("file");
            w.StartObject();
            field(w, "path", r.file.path);
            field(w, "old_path", r.file.oldPath);
            field(w, "owner", r.file.owner);
            field(w, "group", r.file.group);
            field(w, "permissions", r.file.permissions);
            w.EndObject();
            break;
        case RecordShape::Net:
            if (r.kind == EventKind::DnsQuery) {
                w.Key("dns");
                w.StartObject();
                field(w, "name", r.dns.name);
                w.Key("status");
                w.Uint(r.dns.status);
                field(w, "result", r.dns.result);
            } else {
                w.Key("net");
                w.StartObject();
                field(w, "protocol", r.net.protocol);
                field(w, "src_ip", r.net.srcIp);
                w.Key("src_port");
                w.Uint(r.net.srcPort);
                field(w, "dst_ip", r.net.dstIp);
                w.Key("dst_port");
                w.Uint(r.net.dstPort);
            }
            w.EndObject();
            break;
    }
    w.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize());
}

bool recordFromJson(const std::string& line, ActionRecord& r, std::string& error) {
    rapidjson::Document doc;
    doc.Parse(line.c_str(), line.size());
    if (doc.HasParseError() || !doc.IsObject()) {
        error = "not a JSON object";
        return false;
    }
    Reader read(error);
    r = ActionRecord();
    uint32_t subType = 0;
    auto it = doc.FindMember("sub_type");
    if (it == doc.MemberEnd()) {
        error = "no \"sub_type\"";
        return false;
    }
    if (!read.number(doc, "sub_type", subType, 0, UINT32_MAX)) return false;
    std::optional<EventKind> kind = kindOfSubType(subType);
    if (!kind) {
        error = "unknown sub_type " + std::to_string(subType);
        return false;
    }
    r.kind = *kind;
    std::string event;
    if (!read.text(doc, "event", event)) return false;
    if (!event.empty() && event != eventName(r.kind)) {
        error = "event \"" + event + "\" does not match sub_type " + std::to_string(subType);
        return false;
    }
    if (!read.number(doc, "time", r.time, 0, INT64_MAX) || !read.process(doc, "process", r.process)) return false;
    switch (shapeOf(r.kind)) {
        case RecordShape::Process: return read.process(doc, "parent", r.parent);
        case RecordShape::File: {
            const rapidjson::Value* f = read.object(doc, "file");
            return f && read.text(*f, "path", r.file.path) && read.text(*f, "old_path", r.file.oldPath) &&
                   read.text(*f, "owner", r.file.owner) && read.text(*f, "group", r.file.group) &&
                   read.text(*f, "permissions", r.file.permissions);
        }
        case RecordShape::Net:
            if (r.kind == EventKind::DnsQuery) {
                const rapidjson::Value* d = read.object(doc, "dns");
                return d && read.text(*d, "name", r.dns.name) &&
                       read.number(*d, "status", r.dns.status, 0, UINT32_MAX) && read.text(*d, "result", r.dns.result);
            }
            const rapidjson::Value* n = read.object(doc, "net");
            return n && read.text(*n, "protocol", r.net.protocol) && read.text(*n, "src_ip", r.net.srcIp) &&
                   read.number(*n, "src_port", r.net.srcPort, 0, 65535) && read.text(*n, "dst_ip", r.net.dstIp) &&
                   read.number(*n, "dst_port", r.net.dstPort, 0, 65535);
    }
    return true;
}

}  // namespace wlc
