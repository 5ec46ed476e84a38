#include "discovery.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>

#include "ini_file.h"

namespace wlagent {
namespace {

using JsonPtr = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;
using IniPtr = std::unique_ptr<void, decltype(&ini_file_free)>;

bool parseNumber(const std::string& text, long low, long high, long* out) {
    char* end = nullptr;
    long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || value < low || value > high) return false;
    *out = value;
    return true;
}

bool underAny(const std::string& path, const std::vector<std::string>& prefixes) {
    for (const std::string& prefix : prefixes) {
        if (path.compare(0, prefix.size(), prefix) == 0 &&
            (path.size() == prefix.size() || prefix.back() == '/' || path[prefix.size()] == '/'))
            return true;
    }
    return false;
}

std::string text(const cJSON* item, const char* key) {
    const cJSON* value = cJSON_GetObjectItemCaseSensitive(item, key);
    return cJSON_IsString(value) && value->valuestring ? value->valuestring : "";
}

std::string jsonString(const std::string& value) {
    JsonPtr item(cJSON_CreateString(value.c_str()), cJSON_Delete);
    char* printed = cJSON_PrintUnformatted(item.get());
    std::string out = printed ? printed : "\"\"";
    cJSON_free(printed);
    return out;
}

}  // namespace

DiscoverySettings readDiscoverySettings(const AgentConfig& config, std::vector<std::string>& problems) {
    DiscoverySettings settings;
    settings.enabled = config.getBool("discovery", "enabled", settings.enabled, problems);
    settings.learnMinutes =
        static_cast<int>(config.getNumber("discovery", "learn_minutes", 1, 65535, settings.learnMinutes, problems));
    settings.excludePaths = splitConfigList(config.getText("discovery", "exclude_paths", ""));
    for (const std::string& item : splitConfigList(config.getText("discovery", "exclude_ports", ""))) {
        long port = 0;
        if (parseNumber(item, 1, 65535, &port))
            settings.excludePorts.insert(static_cast<unsigned>(port));
        else
            problems.push_back("[discovery] exclude_ports: '" + item + "' is no port");
    }
    return settings;
}

std::vector<ModelProposal> proposeModels(const std::string& openPortsJson, const DiscoverySettings& settings,
                                         const std::string& ownRoot, pid_t ownPid,
                                         const std::set<std::string>& modelledPaths) {
    std::vector<ModelProposal> proposals;
    if (!settings.enabled) return proposals;
    JsonPtr root(cJSON_Parse(openPortsJson.c_str()), cJSON_Delete);
    const cJSON* list = cJSON_GetObjectItemCaseSensitive(root.get(), "list");
    std::map<std::string, std::set<unsigned>> portsByPath;
    const cJSON* entry = nullptr;
    cJSON_ArrayForEach(entry, list) {
        std::string path = text(entry, "process_path");
        long port = 0, pid = 0;
        if (path.empty() || !parseNumber(text(entry, "port"), 1, 65535, &port) ||
            !parseNumber(text(entry, "process_id"), 1, 0x7fffffff, &pid))
            continue;
        if (pid == ownPid || underAny(path, {ownRoot}) || underAny(path, settings.excludePaths) ||
            settings.excludePorts.count(static_cast<unsigned>(port)) || modelledPaths.count(path))
            continue;
        portsByPath[path].insert(static_cast<unsigned>(port));
    }
    std::map<std::string, int> namesUsed;
    for (const auto& [path, ports] : portsByPath) {
        std::string name = path.substr(path.rfind('/') + 1);
        if (++namesUsed[name] > 1) name += "-" + std::to_string(namesUsed[name]);
        proposals.push_back({name, path, std::vector<unsigned>(ports.begin(), ports.end())});
    }
    return proposals;
}

std::set<std::string> modelledPaths(const std::string& catalogueFile) {
    std::set<std::string> paths;
    IniPtr ini(ini_file_load(catalogueFile.c_str()), ini_file_free);
    if (!ini) return paths;
    const char* count = ini_file_get(ini.get(), "baseengine", "count");
    long n = count ? std::strtol(count, nullptr, 10) : 0;
    for (long i = 0; i < n && i < 100000; ++i) {
        std::string section = "model_" + std::to_string(i);
        if (const char* path = ini_file_get(ini.get(), section.c_str(), "process_path")) paths.insert(path);
    }
    return paths;
}

std::string startCommand(const ModelProposal& proposal, int learnMinutes) {
    std::string ports;
    for (unsigned port : proposal.ports) ports += (ports.empty() ? "" : ",") + std::to_string(port);
    return "{\"opr_code\":1,\"data\":{\"list\":[{\"model_name\":" + jsonString(proposal.name) +
           ",\"app_name\":" + jsonString(proposal.name) + ",\"process_path\":" + jsonString(proposal.path) +
           ",\"study_times\":" + std::to_string(learnMinutes) + ",\"alarm\":true,\"port\":[" + ports + "]}]}}";
}

}  // namespace wlagent
