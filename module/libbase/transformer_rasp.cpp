// Runtime-application telemetry: one JSON object per message, the request
// under "data" and the action under "data"."data".
#define WL_LOG_SOURCE "transformer"

#include <rapidjson/document.h>

#include "transformer.h"
#include "transformer_members.h"
#include "wl_log.h"

void Transformer::initRaspInfo(_RASP_EVENTINFO& event) {
    event.time = 0;
    event.pid = 0;
    event.action_type = 0;
    event.type.clear();
    event.action.clear();
    event.headers.clear();
    event.param.clear();
    event.spare0.clear();
    event.action_data.clear();
    event.url.clear();
    event.method.clear();
    event.body.clear();
    event.appCmd.clear();
    for (std::string& spare : event.spare1) spare.clear();
    event.protocol = "tcp";
    event.ip.clear();
    event.dst_ip.clear();
    event.srcPort = 0;
    // spare2 is left as it was: the library owns its meaning.
    event.port.clear();
    event.hostName.clear();
    event.file_path.clear();
    for (std::string& spare : event.spare3) spare.clear();
    for (wl_u64& spare : event.spare4) spare = 0;
    event.dns_name.clear();
    event.sql_text.clear();
    event.origin_log_flag = 0;
    event.match_verdict = 2;
    event.model_status = "FILTER_PEROID";
    event.model_name.clear();
}

bool Transformer::judgeEventType(std::string originLog, _RASP_EVENTINFO& event) {
    if (originLog.find('{') != 0) return false;
    const std::string::size_type close = originLog.rfind('}');
    if (close == std::string::npos) {
        WL_LOG(LOG_LVL_ERROR, "originLog is not a array, not include '}'");
        return false;
    }
    originLog.erase(close + 1);

    rapidjson::Document doc;
    doc.Parse(originLog.c_str());
    const rapidjson::Value* request = jsonMember(&doc, "data");
    const rapidjson::Value* action = jsonMember(request, "data");
    if (request == nullptr || action == nullptr || !jsonHas(action, "action")) return false;
    return TransformEvent(&doc, event);
}

bool Transformer::TransformEvent(rapidjson::Document* doc, _RASP_EVENTINFO& event) {
    const rapidjson::Value* request = jsonMember(doc, "data");
    const rapidjson::Value* action = jsonMember(request, "data");
    const std::string name = textOf(action, "action");
    getJsonValue(event.action, name);
    auto found = eventTypeMap.find(name);
    if (found == eventTypeMap.end()) return false;
    const int number = found->second;
    event.action_type = static_cast<uint16_t>(number);
    TransRaspCommonMsg(doc, event);
    if (number > WL_ACTION_SQLSERVER) return true;

    const rapidjson::Value* subject = jsonMember(action, "data");
    if (number == WL_ACTION_ADDRESS) {
        if (subject == nullptr) return false;
        getJsonValue(event.hostName, textOf(subject, "hostName"));
        getJsonValue(event.ip, textOf(request, "ip"));
        if (const rapidjson::Value* srcPort = jsonMember(request, "srcPort")) event.srcPort = getJsonInt(srcPort);
        // The destination is read from "url" into dst_ip, as the probe sends it.
        getJsonValue(event.dst_ip, textOf(subject, "url"));
        getJsonValue(event.port, textOf(subject, "port"));
        return true;
    }
    if (subject == nullptr) return true;
    getJsonValue(event.action_data, getJsonString(subject));
    if (number == WL_ACTION_DNS) {
        getJsonValue(event.dns_name, event.action_data);
    } else if (number == WL_ACTION_EXECUTE) {
        getJsonValue(event.appCmd, event.action_data);
    } else if (number >= WL_ACTION_WRITE && number <= WL_ACTION_DELETE) {
        getJsonValue(event.file_path, event.action_data);
    } else {
        getJsonValue(event.sql_text, event.action_data);
    }
    return true;
}

void Transformer::TransRaspCommonMsg(rapidjson::Document* doc, _RASP_EVENTINFO& event) {
    const rapidjson::Value* request = jsonMember(doc, "data");
    const rapidjson::Value* action = jsonMember(request, "data");
    if (const rapidjson::Value* pid = jsonMember(doc, "pid")) event.pid = getJsonInt(pid);
    if (const rapidjson::Value* time = jsonMember(doc, "time")) event.time = getJsonInt(time);
    if (jsonHas(action, "type")) getJsonValue(event.type, textOf(action, "type"));
    if (jsonHas(request, "url")) getJsonValue(event.url, textOf(request, "url"));
    if (jsonHas(request, "body")) getJsonValue(event.body, textOf(request, "body"));
    if (jsonHas(request, "method")) getJsonValue(event.method, textOf(request, "method"));
    if (jsonHas(request, "appCmd")) getJsonValue(event.appCmd, textOf(request, "appCmd"));
    if (const rapidjson::Value* headers = jsonMember(request, "headers"))
        getJsonValue(event.headers, jsonToString(*headers));
    if (const rapidjson::Value* param = jsonMember(request, "param")) getJsonValue(event.param, jsonToString(*param));
}
