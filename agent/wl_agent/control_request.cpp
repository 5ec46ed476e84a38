#include "control_request.h"

#include <cmath>

#include "json_util.h"

namespace wlagent {
namespace {

constexpr size_t kMaxName = 1024;
constexpr size_t kMaxAlarmLimit = 5000;

// Reads an optional string member; false with a reason when it has another type or is too long.
bool optionalText(const cJSON* root, const char* key, std::string& out, std::string& error) {
    const cJSON* item = wljson::get(root, key);
    if (!item) return true;
    if (!cJSON_IsString(item) || !item->valuestring) {
        error = std::string("\"") + key + "\" must be a string";
        return false;
    }
    out = item->valuestring;
    if (out.size() > kMaxName) {
        error = std::string("\"") + key + "\" is longer than " + std::to_string(kMaxName) + " bytes";
        return false;
    }
    return true;
}

bool optionalCount(const cJSON* root, const char* key, double high, double& out, std::string& error) {
    const cJSON* item = wljson::get(root, key);
    if (!item) return true;
    if (!cJSON_IsNumber(item) || !std::isfinite(item->valuedouble) || item->valuedouble < 0 ||
        item->valuedouble > high || item->valuedouble != std::floor(item->valuedouble)) {
        error = std::string("\"") + key + "\" must be a whole number from 0 to " +
                std::to_string(static_cast<unsigned long long>(high));
        return false;
    }
    out = item->valuedouble;
    return true;
}

bool isDecimal(const std::string& text) {
    if (text.empty() || text.size() > 20) return false;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
    }
    return true;
}

}  // namespace

std::string parseControlRequest(const std::string& text, ControlRequest& out) {
    if (text.size() > kMaxControlRequest) return "the request is larger than 64 KiB";
    wljson::Ptr root = wljson::parse(text);
    if (!root || !cJSON_IsObject(root.get())) return "the request is not a JSON object";
    std::string cmd;
    std::string error;
    if (!optionalText(root.get(), "cmd", cmd, error)) return error;
    if (!optionalText(root.get(), "engine", out.engine, error)) return error;
    if (!out.engine.empty() && out.engine != "host" && out.engine != "app") return "\"engine\" must be host or app";

    if (cmd == "status") {
        out.kind = ControlRequest::Kind::Status;
    } else if (cmd == "models") {
        out.kind = ControlRequest::Kind::Models;
    } else if (cmd == "model") {
        out.kind = ControlRequest::Kind::Model;
        if (!optionalText(root.get(), "name", out.name, error)) return error;
        if (out.name.empty()) return "\"model\" needs a \"name\"";
    } else if (cmd == "alarms") {
        out.kind = ControlRequest::Kind::Alarms;
        double since = 0, after = 0, limit = 1000;
        if (!optionalText(root.get(), "model", out.filter.model, error) ||
            !optionalText(root.get(), "kind", out.filter.kind, error) ||
            !optionalCount(root.get(), "since", 1e12, since, error) ||
            !optionalCount(root.get(), "after", 9e15, after, error) ||
            !optionalCount(root.get(), "limit", kMaxAlarmLimit, limit, error)) {
            return error;
        }
        out.filter.since = static_cast<std::time_t>(since);
        out.filter.after = static_cast<uint64_t>(after);
        out.filter.limit = static_cast<size_t>(limit);
    } else if (cmd == "alarm") {
        out.kind = ControlRequest::Kind::Alarm;
        if (!optionalText(root.get(), "id", out.id, error)) return error;
        if (!isDecimal(out.id)) return "\"alarm\" needs an \"id\" of decimal digits";
    } else if (cmd == "module") {
        out.kind = ControlRequest::Kind::Module;
        const cJSON* on = wljson::get(root.get(), "on");
        if (!cJSON_IsBool(on)) return "\"module\" needs \"on\": true or false";
        out.on = cJSON_IsTrue(on);
    } else if (cmd.empty()) {
        return "the request has no \"cmd\"";
    } else {
        return "unknown command \"" + cmd.substr(0, 64) + "\"";
    }
    return "";
}

}  // namespace wlagent
