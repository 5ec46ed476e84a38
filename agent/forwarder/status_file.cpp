#include "status_file.h"

#include <memory>

#include <cjson/cJSON.h>

namespace wlforward {
namespace {

double backlog(uint64_t cursor, const wlspool::Extent& extent) {
    uint64_t from = cursor < extent.begin ? extent.begin : cursor;
    return from >= extent.end ? 0.0 : static_cast<double>(extent.end - from);
}

}  // namespace

std::string formatStatus(long pid, const std::vector<SinkStatus>& sinks, const wlspool::Extent& reports,
                         const wlspool::Extent& uploads) {
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddNumberToObject(root.get(), "pid", static_cast<double>(pid));
    cJSON* all = cJSON_AddObjectToObject(root.get(), "sinks");
    for (const SinkStatus& s : sinks) {
        const SinkCounters& c = s.counters;
        cJSON* item = cJSON_AddObjectToObject(all, s.name.c_str());
        cJSON_AddBoolToObject(item, "enabled", s.enabled);
        cJSON_AddBoolToObject(item, "up", s.enabled && c.up);
        cJSON_AddNumberToObject(item, "sent", static_cast<double>(c.sent));
        cJSON_AddNumberToObject(item, "failed", static_cast<double>(c.failed));
        cJSON_AddNumberToObject(item, "dropped", static_cast<double>(c.dropped));
        cJSON_AddNumberToObject(item, "files_sent", static_cast<double>(c.filesSent));
        cJSON_AddNumberToObject(item, "backlog_bytes", s.enabled ? backlog(c.cursor, reports) : 0.0);
        cJSON_AddStringToObject(item, "last_error", c.lastError.c_str());
    }
    cJSON* spool = cJSON_AddObjectToObject(root.get(), "spool");
    cJSON_AddNumberToObject(spool, "bytes", static_cast<double>(reports.bytes));
    cJSON_AddNumberToObject(spool, "dropped", static_cast<double>(reports.dropped));
    cJSON* files = cJSON_AddObjectToObject(root.get(), "uploads");
    cJSON_AddNumberToObject(files, "bytes", static_cast<double>(uploads.bytes));
    cJSON_AddNumberToObject(files, "dropped", static_cast<double>(uploads.dropped));
    std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(root.get()), cJSON_free);
    return text ? std::string(text.get()) + "\n" : std::string();
}

}  // namespace wlforward
