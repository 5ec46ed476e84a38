// Origin logs: a JSON array whose elements carry one event each, as JSON text
// under "message", with flat lower-case keys.
#define WL_LOG_SOURCE "transformer"

#include <algorithm>
#include <cstring>
#include <memory>

#include <rapidjson/document.h>

#include "transformer.h"
#include "transformer_members.h"
#include "transformer_tables.h"
#include "wl_clock.h"
#include "wl_log.h"

namespace {

// The writer puts each element on a line of its own and closes the array
// after each append; a crash during an append leaves the last line torn.
// Rebuilds the array from the lines that are whole objects; empty if none.
std::string wholeElements(const std::string& text) {
    std::string kept;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        if (text[start] == '{') {
            const std::string line = text.substr(start, end - start);
            rapidjson::Document element;
            element.Parse(line.c_str());
            if (element.IsObject()) kept += (kept.empty() ? "[" : ",") + line;
        }
        start = end + 1;
    }
    return kept.empty() ? kept : kept + "]";
}

}  // namespace

bool Transformer::judgeEventType(std::string originLog, std::vector<_BASE_EVENTINFO>& events) {
    const std::string::size_type open = originLog.find('[');
    if (open == std::string::npos) {
        WL_LOG(LOG_LVL_ERROR, "originLog is not a array, not include '['");
        return false;
    }
    originLog.erase(0, open);
    const std::string::size_type close = originLog.rfind(']');

    rapidjson::Document doc;
    if (close != std::string::npos) doc.Parse(originLog.substr(0, close + 1).c_str());
    if (!doc.IsArray()) {
        const std::string salvaged = wholeElements(originLog);
        if (salvaged.empty()) {
            if (close == std::string::npos) {
                WL_LOG(LOG_LVL_ERROR, "originLog is not a array, not include ']'");
            } else {
                WL_LOG(LOG_LVL_ERROR, "originLog is not a array");
            }
            return false;
        }
        WL_LOG(LOG_LVL_WARN, "originLog cut short, its whole elements are read");
        doc.Parse(salvaged.c_str());
    }

    // One cleared buffer, reused: the record is too large for a thread's stack.
    auto record = std::make_unique<_BASE_EVENTINFO>();
    for (rapidjson::Value& element : doc.GetArray()) {
        const rapidjson::Value* message = jsonMember(&element, "message");
        if (message == nullptr) continue;
        rapidjson::Document eventDoc;
        eventDoc.Parse(getJsonString(message).c_str());
        if (!jsonHas(&eventDoc, "event_id")) continue;
        std::memset(record.get(), 0, sizeof(_BASE_EVENTINFO));
        if (TransformEvent(&eventDoc, *record)) events.push_back(*record);
    }
    if (!events.empty()) std::sort(events.begin(), events.end(), comp);
    return true;
}

bool Transformer::TransformEvent(rapidjson::Document* doc, _BASE_EVENTINFO& event) {
    auto found = eventTypeMap.find(getJsonString(jsonMember(doc, "event_id")));
    if (found == eventTypeMap.end()) return false;
    const int number = found->second;
    event.event_type = static_cast<uint16_t>(number);
    event.event_time = static_cast<uint64_t>(wl_time(nullptr));
    stringToWchart(event.model_name, 128, "");

    _BASE_FILES_INFO& file = event.detail.file;
    switch (number) {
        case WL_EVENT_PROCESS_CREATION: {
            TransformProcessMsg(doc, event.detail.process);
            if (!jsonHas(doc, "parent_pid") || !jsonHas(doc, "parent_ppath")) return false;
            event.process_info.process_id = getJsonInt(jsonMember(doc, "parent_pid"));
            putText(doc, "parent_ppath", event.process_info.process_path, 260);
            putOptionalText(doc, "parent_pmd5", event.process_info.process_md5, 33);
            putOptionalText(doc, "parent_pcmd_line", event.process_info.process_cmd_line, 1024);
            putOptionalText(doc, "parent_psha256", event.process_info.process_sha256, 128);
            return true;
        }
        case WL_EVENT_FILE_CREATION:
        case WL_EVENT_FILE_MODIFICATION:
        case WL_EVENT_FILE_TIME_MODIFICATION:
        case WL_EVENT_FILE_RENAMING: {
            TransformProcessMsg(doc, event.process_info);
            TransformFileMsg(doc, file);
            stringToWchart(file.file_event_name, 260, canonicalFileEventName(number));
            if (number == WL_EVENT_FILE_RENAMING) {
                // The old name gets the narrow capacity of a hash, on purpose.
                putOptionalText(doc, "file_md5", file.file_md5, 33);
                putOptionalText(doc, "prev_file_name", file.prev_file_name, 33);
            }
            return true;
        }
        case WL_EVENT_FILE_DELETION: {
            if (!jsonHas(doc, "process_id") || !jsonHas(doc, "process_path")) return false;
            event.process_info.process_id = getJsonInt(jsonMember(doc, "process_id"));
            putText(doc, "process_path", event.process_info.process_path, 260);
            stringToWchart(file.file_event_name, 260, canonicalFileEventName(number));
            putOptionalText(doc, "process_guid", event.process_info.process_guid, 40);
            putOptionalText(doc, "file_name", file.file_name, 260);
            return true;
        }
        case WL_EVENT_NETWORK_CONNECTION: {
            TransformProcessMsg(doc, event.process_info);
            // src_port is deliberately not required: a connection without it keeps 0.
            if (!jsonHas(doc, "dst_port") || !jsonHas(doc, "dst_ip") || !jsonHas(doc, "src_ip") ||
                !jsonHas(doc, "protocol")) {
                return false;
            }
            _BASE_CONNECT_INFO& connect = event.detail.connect;
            connect.dst_port = readU32(doc, "dst_port");
            connect.src_port = readU32(doc, "src_port");
            putText(doc, "dst_ip", connect.dst_ip, 32);
            putText(doc, "src_ip", connect.src_ip, 32);
            putText(doc, "protocol", connect.protocol, 4);
            return true;
        }
        case WL_EVENT_DNS_QUERY: {
            TransformProcessMsg(doc, event.process_info);
            if (!jsonHas(doc, "query_status") || !jsonHas(doc, "query_name") || !jsonHas(doc, "query_result")) {
                return false;
            }
            _BASE_DNS_INFO& dns = event.detail.dns;
            dns.query_status = readU32(doc, "query_status");
            putText(doc, "query_name", dns.query_name, 512);
            putText(doc, "query_result", dns.query_result, 256);
            return true;
        }
        case WL_EVENT_PORT_LISTENING: {
            TransformProcessMsg(doc, event.process_info);
            if (!jsonHas(doc, "dst_port") || !jsonHas(doc, "dst_ip")) return false;
            _BASE_LISTEN_INFO& listen = event.detail.listen;
            listen.port = readU32(doc, "dst_port");
            putText(doc, "dst_ip", listen.address, 32);
            if (!jsonHas(doc, "protocol")) return false;
            putText(doc, "protocol", listen.protocol, 4);
            return true;
        }
        default:
            // Action names ("dns", "execute", ...) carry nothing more for a host record.
            return true;
    }
}

bool Transformer::TransformProcessMsg(rapidjson::Document* doc, _BASE_PROCESSES_INFO& process) {
    if (!jsonHas(doc, "process_id") && !jsonHas(doc, "process_guid")) return false;
    if (!jsonHas(doc, "process_path") && !jsonHas(doc, "process_md5")) return false;
    if (!jsonHas(doc, "process_cmd_line")) return false;
    if (!jsonHas(doc, "process_user_name")) return false;

    putOptionalText(doc, "process_sha256", process.process_sha256, 128);
    process.process_id = getJsonInt(jsonMember(doc, "process_id"));
    putText(doc, "process_guid", process.process_guid, 40);
    putText(doc, "process_path", process.process_path, 260);
    putText(doc, "process_md5", process.process_md5, 33);
    putText(doc, "process_cmd_line", process.process_cmd_line, 1024);
    putText(doc, "process_user_name", process.process_user_name, 128);
    return true;
}

void Transformer::TransformFileMsg(rapidjson::Document* doc, _BASE_FILES_INFO& file) {
    putOptionalText(doc, "file_name", file.file_name, 260);
    if (jsonHas(doc, "file_group_name") && jsonHas(doc, "file_user_name") && jsonHas(doc, "file_permissions")) {
        putText(doc, "file_group_name", file.file_group_name, 128);
        putText(doc, "file_user_name", file.file_user_name, 128);
        putText(doc, "file_permissions", file.file_permissions, 128);
    }
    std::memset(file.file_reserved_time, 0, sizeof(file.file_reserved_time));
    std::memset(file.file_reserved_block, 0, sizeof(file.file_reserved_block));
    file.file_reserved_word = 0;
    stringToWchart(file.file_reserved_text, 256, "");
    stringToWchart(file.file_reserved_name, 33, "");
}
