#include "asset_lists.h"

#include <memory>
#include <set>

#include <cjson/cJSON.h>

#include "asset_collection.h"

namespace wlagent {
namespace {

using JsonPtr = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

std::string printAndFree(JsonPtr root) {
    std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(root.get()), cJSON_free);
    return text ? std::string(text.get()) : std::string("{\"list\":[]}");
}

JsonPtr newListRoot(cJSON** list) {
    JsonPtr root(cJSON_CreateObject(), cJSON_Delete);
    *list = cJSON_AddArrayToObject(root.get(), "list");
    return root;
}

std::string baseName(const std::string& path) {
    auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

AssetLists buildAssetLists(const std::vector<ProcessInfo>& processes, const std::vector<ListeningSocket>& sockets,
                           const std::map<unsigned long, int>& owners) {
    std::map<int, const ProcessInfo*> byPid;
    for (const auto& p : processes) byPid[p.pid] = &p;

    AssetLists out;
    cJSON* list = nullptr;

    auto procRoot = newListRoot(&list);
    for (const auto& p : processes) {
        cJSON* item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "process_id", std::to_string(p.pid).c_str());
        cJSON_AddStringToObject(item, "name", p.name.c_str());
        cJSON_AddStringToObject(item, "process_path", p.exe.c_str());
        // Kernel threads have no executable; uid 0 and system accounts below 1000.
        cJSON_AddStringToObject(item, "type", p.exe.empty() ? "kernel" : (p.uid < 1000 ? "system" : "user"));
        cJSON_AddItemToArray(list, item);
    }
    out.processes = printAndFree(std::move(procRoot));

    std::map<std::string, std::set<int>> appPids;
    auto portRoot = newListRoot(&list);
    for (const auto& s : sockets) {
        auto owner = owners.find(s.inode);
        if (owner == owners.end()) continue;  // socket of a process we cannot see
        auto proc = byPid.find(owner->second);
        std::string exe = proc != byPid.end() ? proc->second->exe : std::string();
        cJSON* item = cJSON_CreateObject();
        // Every entry here listens; "open" 0 is what the report takes in.
        cJSON_AddNumberToObject(item, "open", 0);
        cJSON_AddStringToObject(item, "port", std::to_string(s.port).c_str());
        cJSON_AddStringToObject(item, "protocol", s.protocol.c_str());
        cJSON_AddStringToObject(item, "address", s.address.c_str());
        cJSON_AddStringToObject(item, "process_path", exe.c_str());
        cJSON_AddStringToObject(item, "process_id", std::to_string(owner->second).c_str());
        cJSON_AddItemToArray(list, item);
        if (!exe.empty()) appPids[exe].insert(owner->second);
    }
    out.openPorts = printAndFree(std::move(portRoot));

    auto appRoot = newListRoot(&list);
    for (const auto& app : appPids) {
        cJSON* item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "name", baseName(app.first).c_str());
        cJSON_AddStringToObject(item, "path", app.first.c_str());
        cJSON* pids = cJSON_AddArrayToObject(item, "pid");
        for (int pid : app.second) cJSON_AddItemToArray(pids, cJSON_CreateNumber(pid));
        cJSON_AddItemToArray(list, item);
    }
    out.applications = printAndFree(std::move(appRoot));

    out.moreApps = "{\"list\":[]}";
    return out;
}

int collectAndPublishAssets(std::string* openPorts) {
    auto processes = scanProcesses();
    auto sockets = scanListeningSockets();
    auto lists = buildAssetLists(processes, sockets, mapSocketOwners());
    if (asset_publish_v2(ASSET_KIND_PROCESS, lists.processes.c_str()) != 0 ||
        asset_publish_v2(ASSET_KIND_OPEN_PORT, lists.openPorts.c_str()) != 0 ||
        asset_publish_v2(ASSET_KIND_APP, lists.applications.c_str()) != 0 ||
        asset_publish_v2(ASSET_KIND_APP_EXTRA, lists.moreApps.c_str()) != 0) {
        return -1;
    }
    if (openPorts) *openPorts = lists.openPorts;
    return static_cast<int>(sockets.size());
}

}  // namespace wlagent
