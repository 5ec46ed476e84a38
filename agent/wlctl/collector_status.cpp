#include "collector_status.h"

#include <cjson/cJSON.h>

#include <cstdio>
#include <memory>

namespace wlctl {
namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

std::string text(const cJSON* object, const char* name, const std::string& fallback) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, name);
    if (cJSON_IsString(item)) return item->valuestring;
    if (cJSON_IsNumber(item)) return std::to_string(static_cast<long long>(item->valuedouble));
    return fallback;
}

std::string list(const cJSON* array) {
    std::string out;
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, array) {
        if (!out.empty()) out += ' ';
        out += cJSON_IsString(item) ? std::string(item->valuestring)
                                    : std::to_string(static_cast<long long>(item->valuedouble));
    }
    return out.empty() ? "none" : out;
}

std::string row(const std::string& kind, const std::string (&cells)[5]) {
    char line[160];
    std::snprintf(line, sizeof(line), "  %-24s %10s %10s %12s %11s %12s\n", kind.c_str(), cells[0].c_str(),
                  cells[1].c_str(), cells[2].c_str(), cells[3].c_str(), cells[4].c_str());
    return line;
}

}  // namespace

bool formatCollectorStatus(const CollectorReply& reply, std::string& out) {
    Json status(cJSON_Parse(reply.statusJson.c_str()), cJSON_Delete);
    if (!status || !cJSON_IsObject(status.get())) {
        out = "the collector sent an unreadable status: " + reply.statusJson.substr(0, 200);
        return false;
    }
    const cJSON* root = status.get();
    out = "collector pid " + text(root, "pid", std::to_string(reply.pid)) + ", back-end " +
          text(root, "backend", reply.backend) + ", protocol " + std::to_string(reply.version) + ", " +
          text(root, "clients", "?") + " client(s)\n";
    out += "watched pids: " + list(cJSON_GetObjectItemCaseSensitive(root, "watched")) + "\n";
    const cJSON* kinds = cJSON_GetObjectItemCaseSensitive(root, "kinds");
    if (cJSON_IsObject(kinds)) {
        out += row("event kind", {"received", "sent", "lost kernel", "lost queue", "lost socket"});
        const cJSON* kind = nullptr;
        cJSON_ArrayForEach(kind, kinds) {
            out +=
                row(kind->string, {text(kind, "received", "-"), text(kind, "sent", "-"), text(kind, "lost_kernel", "-"),
                                   text(kind, "lost_queue", "-"), text(kind, "lost_socket", "-")});
        }
    }
    const cJSON* unsupported = cJSON_GetObjectItemCaseSensitive(root, "unsupported");
    if (cJSON_GetArraySize(unsupported) > 0) out += "not seen by this back-end: " + list(unsupported) + "\n";
    return true;
}

}  // namespace wlctl
