#include "rasp_event_view.h"

#include <cstdlib>

#include <rapidjson/document.h>

#include "json_text.h"
#include "normalise_command.h"
#include "normalise_path.h"
#include "normalise_sql.h"
#include "sql_skeleton.h"
#include "variable_runs.h"

namespace baseeng {

namespace {

enum {
    kDns = WL_ACTION_DNS,
    kAddress = WL_ACTION_ADDRESS,
    kExecute = WL_ACTION_EXECUTE,
    kWrite = WL_ACTION_WRITE,
    kDelete = WL_ACTION_DELETE,
    kSqlFirst = WL_ACTION_HSQL,
    kSqlLast = WL_ACTION_SQLSERVER,
};

// Memo tag bit of a key that is a statement's skeleton rather than its text.
const std::uint64_t kSkeletonTag = 0x80;

const SqlDialect kDialects[] = {SqlDialect::Standard, SqlDialect::MySql, SqlDialect::Oracle, SqlDialect::Postgres,
                                SqlDialect::SqlServer};

const char* const kActionNames[] = {"dns",  "address", "execute", "write",   "read",     "delete",
                                    "hsql", "mysql",   "oracle",  "postgre", "sqlserver"};

const char* eventClass(unsigned actionType) {
    if (actionType <= kAddress) {
        return "network";
    }
    if (actionType == kExecute) {
        return "process";
    }
    return actionType <= kDelete ? "file" : "sql";
}

const std::string& firstFilled(const std::string& preferred, const std::string& fallback) {
    return preferred.empty() ? fallback : preferred;
}

// A port as the feedback conversion reads it: digits after the last colon,
// 0 meaning none.
unsigned long portNumber(const std::string& text) {
    std::size_t colon = text.rfind(':');
    std::string digits = colon == std::string::npos ? text : text.substr(colon + 1);
    return std::strtoul(digits.c_str(), nullptr, 10) & 0xfffffffful;
}

std::string portText(const std::string& text) {
    unsigned long number = portNumber(text);
    return number == 0 ? std::string() : std::to_string(number);
}

const std::string& addressHost(const _RASP_EVENTINFO& event) { return firstFilled(event.hostName, event.dst_ip); }

// The host of a destination the probe may give as a URL
// (scheme://user@host:port/path), an address or a bracketed IPv6 address.
std::string hostOfDestination(const std::string& destination) {
    std::size_t start = destination.find("://");
    start = start == std::string::npos ? 0 : start + 3;
    std::size_t end = destination.find_first_of("/?#", start);
    std::string authority = destination.substr(start, end == std::string::npos ? std::string::npos : end - start);
    std::size_t at = authority.rfind('@');
    if (at != std::string::npos) {
        authority.erase(0, at + 1);
    }
    if (!authority.empty() && authority.front() == '[') {
        std::size_t close = authority.find(']');
        return authority.substr(1, close == std::string::npos ? std::string::npos : close - 1);
    }
    std::size_t colon = authority.find(':');
    if (colon != std::string::npos && authority.find(':', colon + 1) == std::string::npos) {
        authority.erase(colon);  // host:port; more colons make an IPv6 address
    }
    return authority;
}

// The action's subject as the probe gave it: what alarms and origin logs carry.
std::string subjectOf(const _RASP_EVENTINFO& event) {
    unsigned type = event.action_type;
    if (type == kDns) {
        return firstFilled(event.dns_name, event.action_data);
    }
    if (type == kAddress) {
        return addressHost(event) + "|" + portText(event.port);
    }
    if (type == kExecute) {
        return firstFilled(event.action_data, event.appCmd);
    }
    if (type <= kDelete) {
        return firstFilled(event.file_path, event.action_data);
    }
    return firstFilled(event.sql_text, event.action_data);
}

// Headers and parameters are JSON texts; they go back in as JSON when they parse.
void putJsonText(JsonWriter& writer, const char* key, const std::string& text) {
    if (text.empty()) {
        return;
    }
    writer.Key(key);
    rapidjson::Document probe;
    probe.Parse(text.c_str(), text.size());
    if (probe.HasParseError()) {
        writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    } else {
        writer.RawValue(text.data(), text.size(), probe.GetType());
    }
}

}  // namespace

const char* raspActionName(unsigned actionType) { return actionType <= kSqlLast ? kActionNames[actionType] : nullptr; }

std::string raspFeature(const _RASP_EVENTINFO& event, ModelMemory& memory) {
    unsigned type = event.action_type;
    const char* action = raspActionName(type);
    if (action == nullptr) {
        return std::string();
    }
    std::string key(action);
    key.push_back(':');
    if (type == kDns) {
        key += firstFilled(event.dns_name, event.action_data);
    } else if (type == kAddress) {
        // The probe's DNS events carry no answers: the host name is all there is.
        key += event.hostName.empty() ? hostOfDestination(event.dst_ip) : event.hostName;
        key += "|" + portText(event.port);
    } else if (type <= kDelete && type != kExecute) {
        const std::string& path = firstFilled(event.file_path, event.action_data);
        appendNormalisedPath(key, path.data(), path.size(), &memory.memo);
    } else {
        // Commands and statements: the costly folds, often of the same text.
        bool command = type == kExecute;
        const std::string& text =
            command ? firstFilled(event.action_data, event.appCmd) : firstFilled(event.sql_text, event.action_data);
        // A text seen before, as bound statements and fixed commands are.
        const FeatureMemo::Key textKey =
            FeatureMemo::keyOf(text.data(), text.size(), type | (command ? memory.directoriesGeneration() << 8 : 0));
        if (const std::string* known = memory.memo.find(textKey)) {
            return *known;
        }
        if (command) {
            key.reserve(key.size() + foldedBound(text.size()) + 8);
            appendNormalisedCommand(key, "", 0, text.c_str(), text.size(), &memory.fileDirectories(), &memory.memo);
            memory.memo.remember(textKey, key);
            return key;
        }
        // Else a statement with new values: remembered by its skeleton, it folds once.
        const SqlDialect dialect = kDialects[type - kSqlFirst];
        std::string& skeleton = memory.scratch;
        const bool skeletal = text.size() <= kMaxSkeletonStatementBytes;
        if (skeletal && skeleton.size() < sqlSkeletonRoom(text.size())) {
            skeleton.resize(sqlSkeletonRoom(text.size()));  // only ever grows: no clearing per event
        }
        std::size_t skeletonSize = 0;
        if (!skeletal || !writeSqlSkeleton(&skeleton[0], text, dialect, skeletonSize)) {
            appendNormalisedSql(key, text, dialect);
            memory.memo.remember(textKey, key);
            return key;
        }
        const FeatureMemo::Key skeletonKey = FeatureMemo::keyOf(skeleton.data(), skeletonSize, type | kSkeletonTag);
        if (const std::string* known = memory.memo.find(skeletonKey)) {
            key = *known;
        } else {
            appendNormalisedSql(key, text, dialect);  // sizes the key itself
            memory.memo.remember(skeletonKey, key);
        }
        memory.memo.remember(textKey, key);  // kept only if the very text comes again
    }
    return key;
}

std::string raspAlarmJson(const _RASP_EVENTINFO& event) {
    rapidjson::StringBuffer buffer;
    JsonWriter writer(buffer);
    unsigned type = event.action_type;
    const char* action = raspActionName(type);
    writer.StartObject();
    putString(writer, "model_name", event.model_name);
    putString(writer, "action", action != nullptr ? action : event.action);
    putUint(writer, "alarm_source", 0);
    putString(writer, "type", firstFilled(event.type, action != nullptr ? eventClass(type) : ""));
    putString(writer, "url", event.url);
    putString(writer, "method", event.method);
    putUint(writer, "pid", event.pid);
    putUint(writer, "time", event.time);
    if (action != nullptr) {
        std::string subject = subjectOf(event);
        if (type == kDns) {
            putString(writer, "query_name", subject);
        } else if (type == kAddress) {
            putString(writer, "hostName", event.hostName);
            putUint(writer, "dst_port", portNumber(event.port));
            putString(writer, "dst_ip", event.dst_ip);
        } else if (type == kExecute) {
            putString(writer, "process_cmd_line", subject);
        } else if (type < kSqlFirst) {
            putString(writer, "file_name", subject);
        } else {
            putString(writer, "sql_command", subject);
        }
    }
    writer.EndObject();
    return textOf(buffer);
}

std::string raspOriginElement(const _RASP_EVENTINFO& event) {
    rapidjson::StringBuffer buffer;
    JsonWriter writer(buffer);
    unsigned type = event.action_type;
    const char* action = raspActionName(type);
    writer.StartObject();
    putUint(writer, "pid", event.pid);
    putUint(writer, "time", event.time);
    putString(writer, "model_name", event.model_name);
    writer.Key("data");
    writer.StartObject();
    putString(writer, "url", event.url);
    putString(writer, "body", event.body);
    putString(writer, "method", event.method);
    putString(writer, "appCmd", event.appCmd);
    putJsonText(writer, "headers", event.headers);
    putJsonText(writer, "param", event.param);
    if (type == kAddress) {
        putString(writer, "ip", event.ip);
        putUint(writer, "srcPort", event.srcPort);
    }
    writer.Key("data");
    writer.StartObject();
    putString(writer, "type", event.type);
    putString(writer, "action", action != nullptr ? action : event.action);
    if (type == kAddress) {
        writer.Key("data");
        writer.StartObject();
        putString(writer, "hostName", event.hostName);
        putString(writer, "url", event.dst_ip);
        putString(writer, "port", event.port);
        writer.EndObject();
    } else if (action != nullptr) {
        putString(writer, "data", subjectOf(event));
    }
    writer.EndObject();
    writer.EndObject();
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
