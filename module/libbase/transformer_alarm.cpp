// Alarm feedback: a JSON array of flat objects, each naming its model. An
// element without its kind or model ends the list; one that fails inside its
// conversion is dropped alone.
#define WL_LOG_SOURCE "transformer"

#include <cstring>
#include <initializer_list>
#include <memory>

#include <rapidjson/document.h>

#include "str_utils.h"
#include "transformer.h"
#include "transformer_members.h"
#include "transformer_tables.h"
#include "wl_log.h"

namespace {

bool hasAll(const rapidjson::Value* object, std::initializer_list<const char*> keys) {
    for (const char* key : keys) {
        if (!jsonHas(object, key)) return false;
    }
    return true;
}

// What a runtime-application alarm of one action class carries besides "url".
struct ActionAlarm {
    const char* subjectKey;
    const char* type;
    std::string _RASP_EVENTINFO::*target;
};

ActionAlarm actionAlarmOf(int number) {
    if (number == WL_ACTION_DNS) return {"query_name", "network", &_RASP_EVENTINFO::dns_name};
    if (number == WL_ACTION_EXECUTE) return {"process_cmd_line", "process", &_RASP_EVENTINFO::appCmd};
    if (number >= WL_ACTION_WRITE && number <= WL_ACTION_DELETE) {
        return {"file_name", "file", &_RASP_EVENTINFO::file_path};
    }
    return {"sql_command", "sql", &_RASP_EVENTINFO::sql_text};
}

}  // namespace

bool Transformer::judgeAlarmEventType(std::string text, std::vector<_BASE_EVENTINFO>& events) {
    rapidjson::Document doc;
    doc.Parse(text.c_str());
    if (!doc.IsArray()) {
        WL_LOG(LOG_LVL_ERROR, "originLog is not a array");
        return false;
    }
    auto record = std::make_unique<_BASE_EVENTINFO>();
    for (rapidjson::Value& element : doc.GetArray()) {
        if (!jsonHas(&element, "event_id") || !jsonHas(&element, "model_name")) return false;
        std::memset(record.get(), 0, sizeof(_BASE_EVENTINFO));
        if (TransformAlarmEvent(&element, *record)) events.push_back(*record);
    }
    return true;
}

bool Transformer::judgeAlarmEventType(std::string text, std::vector<_RASP_EVENTINFO>& events) {
    rapidjson::Document doc;
    doc.Parse(text.c_str());
    if (!doc.IsArray()) {
        WL_LOG(LOG_LVL_ERROR, "originLog is not a array");
        return false;
    }
    for (rapidjson::Value& element : doc.GetArray()) {
        if (!jsonHas(&element, "action") || !jsonHas(&element, "model_name")) return false;
        _RASP_EVENTINFO record;
        initRaspInfo(record);
        if (TransformAlarmEvent(&element, record)) events.push_back(record);
    }
    return true;
}

bool Transformer::TransformAlarmEvent(rapidjson::Value* alarm, _BASE_EVENTINFO& event) {
    auto found = eventTypeMap.find(textOf(alarm, "event_id"));
    if (found == eventTypeMap.end()) return false;
    const int number = found->second;
    event.event_type = static_cast<uint16_t>(number);
    putText(alarm, "model_name", event.model_name, 128);

    switch (number) {
        case WL_EVENT_PROCESS_CREATION:
            TransformAlarmProcessMsg(alarm, event.detail.process);
            if (!hasAll(alarm, {"parent_pcmd_line", "parent_ppath"})) return false;
            putText(alarm, "parent_ppath", event.process_info.process_path, 260);
            putText(alarm, "parent_pcmd_line", event.process_info.process_cmd_line, 1024);
            return true;
        case WL_EVENT_FILE_CREATION:
        case WL_EVENT_FILE_MODIFICATION:
        case WL_EVENT_FILE_DELETION:
        case WL_EVENT_FILE_RENAMING:
        case WL_EVENT_FILE_TIME_MODIFICATION:
            TransformAlarmFileEvent(alarm, event);
            stringToWchart(event.detail.file.file_event_name, 260, canonicalFileEventName(number));
            return true;
        case WL_EVENT_NETWORK_CONNECTION: {
            TransformAlarmProcessMsg(alarm, event.process_info);
            if (!hasAll(alarm, {"dst_port", "src_port", "dst_ip", "src_ip", "protocol"})) return false;
            _BASE_CONNECT_INFO& connect = event.detail.connect;
            connect.dst_port = readU32(alarm, "dst_port");
            connect.src_port = readU32(alarm, "src_port");
            // An alarm may carry a URL here; the model wants the bare host.
            stringToWchart(connect.dst_ip, 32, spiltDnsIp(textOf(alarm, "dst_ip")));
            putText(alarm, "src_ip", connect.src_ip, 32);
            putText(alarm, "protocol", connect.protocol, 4);
            return true;
        }
        case WL_EVENT_DNS_QUERY: {
            TransformAlarmProcessMsg(alarm, event.process_info);
            if (!hasAll(alarm, {"query_status", "query_name", "query_results"})) return false;
            _BASE_DNS_INFO& dns = event.detail.dns;
            dns.query_status = readU32(alarm, "query_status");
            putText(alarm, "query_name", dns.query_name, 512);
            putText(alarm, "query_results", dns.query_result, 256);
            return true;
        }
        case WL_EVENT_PORT_LISTENING: {
            TransformAlarmProcessMsg(alarm, event.process_info);
            if (!hasAll(alarm, {"port", "address", "protocol"})) return false;
            _BASE_LISTEN_INFO& listen = event.detail.listen;
            listen.port = readU32(alarm, "port");
            putText(alarm, "address", listen.address, 32);
            putText(alarm, "protocol", listen.protocol, 4);
            return true;
        }
        default: return true;
    }
}

bool Transformer::TransformAlarmFileEvent(rapidjson::Value* alarm, _BASE_EVENTINFO& event) {
    if (!hasAll(alarm, {"file_name", "process_path"})) return false;
    putText(alarm, "file_name", event.detail.file.file_name, 260);
    putText(alarm, "process_path", event.process_info.process_path, 260);
    return true;
}

bool Transformer::TransformAlarmProcessMsg(rapidjson::Value* alarm, _BASE_PROCESSES_INFO& process) {
    if (!hasAll(alarm, {"process_path", "process_cmd_line"})) return false;
    putText(alarm, "process_path", process.process_path, 260);
    putText(alarm, "process_cmd_line", process.process_cmd_line, 1024);
    return true;
}

bool Transformer::TransformAlarmEvent(rapidjson::Value* alarm, _RASP_EVENTINFO& event) {
    const std::string name = textOf(alarm, "action");
    auto found = eventTypeMap.find(name);
    if (found == eventTypeMap.end()) return false;
    const int number = found->second;
    getJsonValue(event.model_name, textOf(alarm, "model_name"));
    getJsonValue(event.action, name);
    event.action_type = static_cast<uint16_t>(number);
    if (number > WL_ACTION_SQLSERVER) return true;

    if (number == WL_ACTION_ADDRESS) {
        if (!hasAll(alarm, {"hostName", "dst_port", "url", "dst_ip"})) return false;
        const uint32_t port = readU32(alarm, "dst_port");
        if (port != 0) {
            char buffer[256];
            std::memset(buffer, 0, sizeof(buffer));
            str_snprintf(buffer, sizeof(buffer), "%ld", static_cast<long>(static_cast<int32_t>(port)));
            getJsonValue(event.port, buffer);
        }
        getJsonValue(event.type, "network");
        getJsonValue(event.url, textOf(alarm, "url"));
        getJsonValue(event.hostName, textOf(alarm, "hostName"));
        getJsonValue(event.dst_ip, textOf(alarm, "dst_ip"));
        return true;
    }

    const ActionAlarm shape = actionAlarmOf(number);
    if (!hasAll(alarm, {shape.subjectKey, "url"})) return false;
    getJsonValue(event.type, shape.type);
    getJsonValue(event.url, textOf(alarm, "url"));
    getJsonValue(event.action_data, textOf(alarm, shape.subjectKey));
    getJsonValue(event.*shape.target, event.action_data);
    return true;
}
