// Feeds telemetry lines (one per line of standard input) through the module's
// runtime-application conversion and prints each resulting record as one JSON
// line, so that the probe's tests can check what the module makes of them.
#include <iostream>
#include <string>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "transformer.h"

namespace {

void put(rapidjson::Writer<rapidjson::StringBuffer>& out, const char* key, const std::string& value) {
    out.Key(key);
    out.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
}

}  // namespace

int main() {
    Transformer transformer;
    std::string line;
    while (std::getline(std::cin, line)) {
        _RASP_EVENTINFO event;
        transformer.initRaspInfo(event);
        const bool accepted = transformer.judgeEventType(line, event);
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> out(buffer);
        out.StartObject();
        out.Key("accepted");
        out.Bool(accepted);
        out.Key("time");
        out.Uint64(event.time);
        out.Key("pid");
        out.Uint64(event.pid);
        out.Key("action_type");
        out.Uint(event.action_type);
        out.Key("srcPort");
        out.Uint64(event.srcPort);
        put(out, "type", event.type);
        put(out, "action", event.action);
        put(out, "headers", event.headers);
        put(out, "param", event.param);
        put(out, "action_data", event.action_data);
        put(out, "url", event.url);
        put(out, "method", event.method);
        put(out, "body", event.body);
        put(out, "appCmd", event.appCmd);
        put(out, "ip", event.ip);
        put(out, "dst_ip", event.dst_ip);
        put(out, "port", event.port);
        put(out, "hostName", event.hostName);
        put(out, "file_path", event.file_path);
        put(out, "dns_name", event.dns_name);
        put(out, "sql_text", event.sql_text);
        out.EndObject();
        std::cout << buffer.GetString() << '\n';
    }
    return 0;
}
