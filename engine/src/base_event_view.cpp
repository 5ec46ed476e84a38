#include "base_event_view.h"

#include "json_text.h"
#include "normalise_command.h"
#include "normalise_path.h"
#include "variable_runs.h"
#include "wide_text.h"

namespace baseeng {

namespace {

enum {
    kProcessCreation = WL_EVENT_PROCESS_CREATION,
    kFileFirst = WL_EVENT_FILE_CREATION,
    kFileDeletion = WL_EVENT_FILE_DELETION,
    kFileRenaming = WL_EVENT_FILE_RENAMING,
    kFileLast = WL_EVENT_FILE_TIME_MODIFICATION,
    kConnection = WL_EVENT_NETWORK_CONNECTION,
    kDnsQuery = WL_EVENT_DNS_QUERY,
    kListening = WL_EVENT_PORT_LISTENING,
};

bool isFileEvent(unsigned type) { return type >= kFileFirst && type <= kFileLast; }

// A literal IPv6 address is kept in brackets in alarms, so that the feedback
// conversion, which cuts a port after the last colon, gives it back whole.
std::string bareHost(const std::string& host) {
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        return host.substr(1, host.size() - 2);
    }
    return host;
}

void putWide(JsonWriter& writer, const char* key, const wchar_t* field, std::size_t capacity) {
    putString(writer, key, narrowText(field, capacity));
}

template <std::size_t N>
void putWide(JsonWriter& writer, const char* key, const wchar_t (&field)[N]) {
    putWide(writer, key, field, N);
}

void putProcess(JsonWriter& writer, const _BASE_PROCESSES_INFO& process) {
    putUint(writer, "process_id", process.process_id);
    putWide(writer, "process_guid", process.process_guid);
    putWide(writer, "process_path", process.process_path);
    putWide(writer, "process_md5", process.process_md5);
    putWide(writer, "process_sha256", process.process_sha256);
    putWide(writer, "process_cmd_line", process.process_cmd_line);
    putWide(writer, "process_user_name", process.process_user_name);
}

void putParent(JsonWriter& writer, const _BASE_PROCESSES_INFO& parent) {
    putUint(writer, "parent_pid", parent.process_id);
    putWide(writer, "parent_ppath", parent.process_path);
    putWide(writer, "parent_pmd5", parent.process_md5);
    putWide(writer, "parent_psha256", parent.process_sha256);
    putWide(writer, "parent_pcmd_line", parent.process_cmd_line);
}

void putFile(JsonWriter& writer, const _BASE_FILES_INFO& file, unsigned type) {
    putWide(writer, "file_name", file.file_name);
    putWide(writer, "file_user_name", file.file_user_name);
    putWide(writer, "file_group_name", file.file_group_name);
    putWide(writer, "file_permissions", file.file_permissions);
    if (type == kFileRenaming) {
        putWide(writer, "file_md5", file.file_md5);
        putWide(writer, "prev_file_name", file.prev_file_name);
    }
}

void putHead(JsonWriter& writer, const _BASE_EVENTINFO& event) {
    const char* name = baseEventName(event.event_type);
    putString(writer, "event_id", name != nullptr ? name : std::to_string(event.event_type));
    putString(writer, "model_name", narrowText(event.model_name));
    putUint(writer, "event_time", event.event_time);
}

}  // namespace

const char* baseEventName(unsigned eventType) {
    switch (eventType) {
        case kProcessCreation: return "PROCESS_CREATION";
        case WL_EVENT_FILE_CREATION: return "FILE_CREATION";
        case WL_EVENT_FILE_MODIFICATION: return "FILE_MODIFICATION";
        case WL_EVENT_FILE_DELETION: return "FILE_DELETION";
        case WL_EVENT_FILE_RENAMING: return "FILE_RENAMING";
        case WL_EVENT_FILE_TIME_MODIFICATION: return "FILE_TIME_MODIFICATION";
        case kConnection: return "NETWORK_CONNECTION";
        case kDnsQuery: return "DNS_QUERY";
        case kListening: return "HOST_PORT_LISTENING";
        default: return nullptr;
    }
}

unsigned long long actingProcessId(const _BASE_EVENTINFO& event) { return event.process_info.process_id; }

std::string actingProcessPath(const _BASE_EVENTINFO& event) { return narrowText(event.process_info.process_path); }

std::string baseFeature(const _BASE_EVENTINFO& event, ModelMemory& memory) {
    const auto& detail = event.detail;
    unsigned type = event.event_type;
    // Record texts are narrowed on the stack: this runs for every event.
    if (type == kProcessCreation) {
        const std::size_t pathCapacity = sizeof detail.process.process_path / sizeof(wchar_t);
        const std::size_t lineCapacity = sizeof detail.process.process_cmd_line / sizeof(wchar_t);
        // The executable, a terminator, the line: the memo's key in one piece;
        // and the line's terminator, which the folding wants.
        char text[pathCapacity + 1 + lineCapacity + 1];
        std::size_t pathSize = wcsnlen(detail.process.process_path, pathCapacity);
        narrowRun(text, detail.process.process_path, pathSize);
        text[pathSize] = '\0';
        char* line = text + pathSize + 1;
        std::size_t lineSize = wcsnlen(detail.process.process_cmd_line, lineCapacity);
        narrowRun(line, detail.process.process_cmd_line, lineSize);
        line[lineSize] = '\0';
        FeatureMemo::Key key =
            FeatureMemo::keyOf(text, pathSize + 1 + lineSize, kProcessCreation | memory.directoriesGeneration() << 8);
        if (const std::string* known = memory.memo.find(key)) {
            return *known;
        }
        std::string feature;
        feature.reserve(8 + pathSize + foldedBound(lineSize) + 8);
        feature = "process:";
        appendNormalisedCommand(feature, text, pathSize, line, lineSize, &memory.fileDirectories(), &memory.memo);
        memory.memo.remember(key, feature);
        return feature;
    }
    if (isFileEvent(type)) {
        char path[sizeof detail.file.file_name / sizeof(wchar_t)];
        std::size_t size = narrowInto(path, detail.file.file_name);
        std::string feature;
        feature.reserve(5 + foldedBound(size));
        feature = "file:";
        appendNormalisedPath(feature, path, size, &memory.memo);
        return feature;
    }
    switch (type) {
        case kConnection: {
            // By the name the application looked up, which outlives its addresses;
            // the source port is the system's choice and no part of the behaviour.
            std::string address = bareHost(narrowText(detail.connect.dst_ip));
            const std::string* name = memory.addressNames.nameOf(address);
            return "connect:" + (name != nullptr ? *name : address) + "|" + std::to_string(detail.connect.dst_port) +
                   "|" + narrowText(detail.connect.protocol);
        }
        case kDnsQuery: {
            std::string name = narrowText(detail.dns.query_name);
            memory.addressNames.rememberAnswer(name, narrowText(detail.dns.query_result));
            return "dns:" + name;
        }
        case kListening:
            return "listen:" + std::to_string(detail.listen.port) + "|" + narrowText(detail.listen.protocol);
        default: return std::string();
    }
}

std::string baseAlarmJson(const _BASE_EVENTINFO& event) {
    rapidjson::StringBuffer buffer;
    JsonWriter writer(buffer);
    const auto& detail = event.detail;
    unsigned type = event.event_type;
    writer.StartObject();
    putHead(writer, event);
    putUint(writer, "alarm_source", 1);
    if (type == kProcessCreation) {
        putProcess(writer, detail.process);
        putParent(writer, event.process_info);
    } else {
        putProcess(writer, event.process_info);
    }
    if (isFileEvent(type)) {
        putFile(writer, detail.file, type);
    } else if (type == kConnection) {
        std::string host = narrowText(detail.connect.dst_ip);
        if (host.find(':') != std::string::npos && host.front() != '[') {
            host = "[" + host + "]:" + std::to_string(detail.connect.dst_port);
        }
        putUint(writer, "dst_port", detail.connect.dst_port);
        putUint(writer, "src_port", detail.connect.src_port);
        putString(writer, "dst_ip", host);
        putWide(writer, "src_ip", detail.connect.src_ip);
        putWide(writer, "protocol", detail.connect.protocol);
    } else if (type == kDnsQuery) {
        putUint(writer, "query_status", detail.dns.query_status);
        putWide(writer, "query_name", detail.dns.query_name);
        putWide(writer, "query_results", detail.dns.query_result);
    } else if (type == kListening) {
        putUint(writer, "port", detail.listen.port);
        putWide(writer, "address", detail.listen.address);
        putWide(writer, "protocol", detail.listen.protocol);
    }
    writer.EndObject();
    return textOf(buffer);
}

std::string baseOriginElement(const _BASE_EVENTINFO& event) {
    rapidjson::StringBuffer buffer;
    JsonWriter writer(buffer);
    const auto& detail = event.detail;
    unsigned type = event.event_type;
    writer.StartObject();
    putHead(writer, event);
    if (type == kProcessCreation) {
        putProcess(writer, detail.process);
        putParent(writer, event.process_info);
    } else {
        putProcess(writer, event.process_info);
    }
    if (isFileEvent(type)) {
        putFile(writer, detail.file, type);
    } else if (type == kConnection) {
        putUint(writer, "dst_port", detail.connect.dst_port);
        putUint(writer, "src_port", detail.connect.src_port);
        putWide(writer, "dst_ip", detail.connect.dst_ip);
        putWide(writer, "src_ip", detail.connect.src_ip);
        putWide(writer, "protocol", detail.connect.protocol);
    } else if (type == kDnsQuery) {
        putUint(writer, "query_status", detail.dns.query_status);
        putWide(writer, "query_name", detail.dns.query_name);
        putWide(writer, "query_result", detail.dns.query_result);
    } else if (type == kListening) {
        // The origin-log reader takes a listening port from the connection keys.
        putUint(writer, "dst_port", detail.listen.port);
        putWide(writer, "dst_ip", detail.listen.address);
        putWide(writer, "protocol", detail.listen.protocol);
    }
    writer.EndObject();

    rapidjson::StringBuffer element;
    JsonWriter outer(element);
    outer.StartObject();
    outer.Key("message");
    outer.String(buffer.GetString(), static_cast<rapidjson::SizeType>(buffer.GetSize()));
    outer.EndObject();
    return textOf(element);
}

}  // namespace baseeng
