#include "control_service.h"

#include <unistd.h>

#include <cstring>
#include <map>

#include "control_request.h"
#include "json_util.h"

namespace wlagent {
namespace {

cJSON* parsedOrNull(const std::string& text) {
    if (text.empty()) return cJSON_CreateNull();
    cJSON* item = cJSON_ParseWithLength(text.data(), text.size());
    return item ? item : cJSON_CreateNull();
}

std::string errorReply(const char* code, const std::string& sentence) {
    wljson::Ptr out(cJSON_CreateObject());
    cJSON_AddBoolToObject(out.get(), "ok", false);
    cJSON_AddStringToObject(out.get(), "code", code);
    cJSON_AddStringToObject(out.get(), "error", sentence.c_str());
    return wljson::print(out.get());
}

std::string okReply(const char* key, cJSON* value) {
    wljson::Ptr out(cJSON_CreateObject());
    cJSON_AddBoolToObject(out.get(), "ok", true);
    cJSON_AddItemToObject(out.get(), key, value);
    return wljson::print(out.get());
}

void addBoolOrNull(cJSON* object, const char* key, const std::function<bool()>& fn) {
    if (fn) {
        cJSON_AddBoolToObject(object, key, fn());
    } else {
        cJSON_AddNullToObject(object, key);
    }
}

bool mentionsDrop(const char* key) {
    return key && (std::strstr(key, "drop") || std::strstr(key, "lost") || std::strstr(key, "overflow"));
}

// The view of a model the catalogue names but no report has spoken of yet.
cJSON* catalogueOnlyView(const CatalogueEntry& entry) {
    cJSON* view = cJSON_CreateObject();
    cJSON_AddStringToObject(view, "engine", entry.engine.c_str());
    cJSON_AddStringToObject(view, "name", entry.name.c_str());
    cJSON_AddNullToObject(view, "status");
    cJSON_AddNumberToObject(view, "alarms", 0);
    return view;
}

// Adds a catalogue entry's definition to a model view.
void addDefinition(cJSON* view, const CatalogueEntry& entry) {
    cJSON* def = cJSON_AddObjectToObject(view, "definition");
    cJSON_AddStringToObject(def, "app_name", entry.app.c_str());
    cJSON_AddStringToObject(def, "process_path", entry.path.c_str());
    cJSON_AddStringToObject(def, "ports", entry.ports.c_str());
    cJSON_AddNumberToObject(def, "study_time", static_cast<double>(entry.studyTime));
    cJSON_AddBoolToObject(def, "alarm", entry.alarm);
}

// The fields an operator reads first, lifted out of the status.
void addSummary(cJSON* view) {
    const cJSON* status = wljson::get(view, "status");
    double progress = learningProgress(status);
    if (progress < 0) {
        cJSON_AddNullToObject(view, "progress");
    } else {
        cJSON_AddNumberToObject(view, "progress", progress);
    }
    std::string period = wljson::text(status, "period");
    cJSON_AddStringToObject(view, "period",
                            period == "LEARN_PEROID"    ? "learning"
                            : period == "FILTER_PEROID" ? "filtering"
                                                        : "unknown");
    const cJSON* features = wljson::get(status, "feature_count");
    if (cJSON_IsNumber(features)) {
        cJSON_AddNumberToObject(view, "features", features->valuedouble);
    } else {
        cJSON_AddNullToObject(view, "features");
    }
}

}  // namespace

double learningProgress(const cJSON* status) {
    if (!cJSON_IsObject(status)) return -1;
    if (wljson::text(status, "period") == "FILTER_PEROID") return 1;
    const cJSON* learned = wljson::get(status, "learned_seconds");
    const cJSON* time = wljson::get(status, "learn_time");
    const cJSON* unit = wljson::get(status, "learn_unit_seconds");
    if (!cJSON_IsNumber(learned) || !cJSON_IsNumber(time)) return -1;
    double unitSeconds = cJSON_IsNumber(unit) && unit->valuedouble > 0 ? unit->valuedouble : 60;
    double total = time->valuedouble * unitSeconds;
    if (total <= 0) return 1;
    double progress = learned->valuedouble / total;
    return progress < 0 ? 0 : progress > 1 ? 1 : progress;
}

double sumDrops(const cJSON* counters) {
    double sum = 0;
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, counters) {
        if (cJSON_IsNumber(item) && mentionsDrop(item->string)) {
            sum += item->valuedouble;
        } else if (cJSON_IsObject(item)) {
            sum += sumDrops(item);
        }
    }
    return sum;
}

ControlService::ControlService(StatusSources sources, const ReportLedger& ledger)
    : m_sources(std::move(sources)), m_ledger(ledger) {}

cJSON* ControlService::status() {
    cJSON* out = cJSON_CreateObject();
    std::time_t now = std::time(nullptr);

    cJSON* agent = cJSON_AddObjectToObject(out, "agent");
    cJSON_AddNumberToObject(agent, "pid", static_cast<double>(::getpid()));
    cJSON_AddStringToObject(agent, "version", m_sources.version.c_str());
    cJSON_AddStringToObject(agent, "root", m_sources.root.c_str());
    cJSON_AddStringToObject(agent, "config", m_sources.configFile.c_str());
    cJSON_AddNumberToObject(agent, "started", static_cast<double>(m_sources.started));
    cJSON_AddNumberToObject(agent, "uptime_seconds", static_cast<double>(now - m_sources.started));
    std::string listen = m_sources.metricsListen ? m_sources.metricsListen() : "";
    cJSON_AddStringToObject(agent, "metrics", listen.c_str());

    cJSON* module = cJSON_AddObjectToObject(out, "module");
    addBoolOrNull(module, "loaded", m_sources.moduleLoaded);
    addBoolOrNull(module, "host_switch", m_sources.hostSwitch);
    addBoolOrNull(module, "centre_switch", m_sources.centreSwitch);

    cJSON* engines = cJSON_AddObjectToObject(out, "engines");
    cJSON* bus = parsedOrNull(m_sources.busCounters ? m_sources.busCounters() : "");
    cJSON* telemetry = parsedOrNull(m_sources.telemetryCounters ? m_sources.telemetryCounters() : "");
    cJSON_AddItemToObject(engines, "bus", bus);
    cJSON_AddItemToObject(engines, "telemetry", telemetry);
    cJSON* queues = parsedOrNull(m_sources.moduleCounters ? m_sources.moduleCounters() : "");
    cJSON_AddItemToObject(engines, "module", queues);

    cJSON* collector = cJSON_AddObjectToObject(out, "collector");
    std::string state = m_sources.collectorState ? m_sources.collectorState() : "unknown";
    cJSON_AddStringToObject(collector, "state", state.c_str());
    std::string error;
    std::string collectorText = m_sources.collectorStatus ? m_sources.collectorStatus(error) : "";
    cJSON* collectorStatus = parsedOrNull(collectorText);
    cJSON_AddItemToObject(collector, "status", collectorStatus);
    cJSON_AddStringToObject(collector, "error", error.c_str());

    cJSON* reports = m_ledger.reportsJson();
    cJSON_AddItemToObject(out, "reports", reports);
    cJSON* forwarder = parsedOrNull(m_sources.forwarderStatus ? m_sources.forwarderStatus() : "");
    cJSON_AddItemToObject(out, "forwarder", forwarder);
    if (m_sources.serviceCounters) cJSON_AddItemToObject(out, "service", m_sources.serviceCounters());

    // Every place something can be lost, in one list.
    cJSON* drops = cJSON_AddObjectToObject(out, "drops");
    auto addDrop = [&](const char* key, const cJSON* from, const char* name) {
        const cJSON* item = wljson::get(from, name);
        if (cJSON_IsNumber(item)) cJSON_AddNumberToObject(drops, key, item->valuedouble);
    };
    if (cJSON_IsObject(bus)) cJSON_AddNumberToObject(drops, "bus", sumDrops(bus));
    if (cJSON_IsObject(telemetry)) cJSON_AddNumberToObject(drops, "telemetry", sumDrops(telemetry));
    if (cJSON_IsObject(queues)) cJSON_AddNumberToObject(drops, "module_queues", sumDrops(queues));
    if (cJSON_IsObject(collectorStatus)) {
        double kernel = wljson::number(collectorStatus, "lost_kernel"), queue = 0, socket = 0;
        const cJSON* kind = nullptr;
        cJSON_ArrayForEach(kind, wljson::get(collectorStatus, "kinds")) {
            queue += wljson::number(kind, "lost_queue");
            socket += wljson::number(kind, "lost_socket");
        }
        cJSON_AddNumberToObject(drops, "collector_kernel", kernel);
        cJSON_AddNumberToObject(drops, "collector_backend", wljson::number(collectorStatus, "lost_backend"));
        cJSON_AddNumberToObject(drops, "collector_queue", queue);
        cJSON_AddNumberToObject(drops, "collector_socket", socket);
    }
    double lost = 0;
    const cJSON* type = nullptr;
    cJSON_ArrayForEach(type, wljson::get(reports, "by_type")) lost += wljson::number(type, "lost");
    cJSON_AddNumberToObject(drops, "reports_lost", lost + wljson::number(reports, "lost_unreadable"));
    addDrop("reports_unreadable", reports, "unreadable");
    addDrop("alarms_evicted", reports, "alarms_evicted");
    if (cJSON_IsObject(forwarder)) {
        const cJSON* spool = wljson::get(forwarder, "spool");
        addDrop("spool_dropped", spool, "dropped");
        double failed = 0;
        const cJSON* sink = nullptr;
        cJSON_ArrayForEach(sink, wljson::get(forwarder, "sinks")) failed += wljson::number(sink, "failed");
        cJSON_AddNumberToObject(drops, "sink_failed", failed);
    }
    return out;
}

cJSON* ControlService::models() {
    std::vector<CatalogueEntry> catalogue = m_sources.catalogue ? m_sources.catalogue() : std::vector<CatalogueEntry>();
    wljson::Ptr reported(m_ledger.modelsJson(false));
    std::map<std::pair<std::string, std::string>, cJSON*> views;
    cJSON* out = cJSON_CreateArray();
    cJSON* item = reported.get()->child;
    while (item) {
        cJSON* next = item->next;
        cJSON* view = cJSON_DetachItemViaPointer(reported.get(), item);
        cJSON_AddBoolToObject(view, "in_catalogue", false);
        views[{wljson::text(view, "engine"), wljson::text(view, "name")}] = view;
        cJSON_AddItemToArray(out, view);
        item = next;
    }
    for (const CatalogueEntry& entry : catalogue) {
        cJSON*& view = views[{entry.engine, entry.name}];
        if (!view) {
            view = catalogueOnlyView(entry);
            cJSON_AddNullToObject(view, "last_alarm");
            cJSON_AddBoolToObject(view, "in_catalogue", false);
            cJSON_AddItemToArray(out, view);
        }
        if (wljson::has(view, "definition")) continue;  // a name the catalogue holds twice
        cJSON_ReplaceItemInObjectCaseSensitive(view, "in_catalogue", cJSON_CreateBool(true));
        addDefinition(view, entry);
    }
    cJSON_ArrayForEach(item, out) addSummary(item);
    return out;
}

cJSON* ControlService::modelView(const std::string& engine, const std::string& name) {
    cJSON* view = m_ledger.modelJson(engine, name);
    std::vector<CatalogueEntry> catalogue = m_sources.catalogue ? m_sources.catalogue() : std::vector<CatalogueEntry>();
    for (const CatalogueEntry& entry : catalogue) {
        if (entry.name != name || (!engine.empty() && entry.engine != engine)) continue;
        if (view && wljson::text(view, "engine") != entry.engine) continue;
        if (!view) {
            view = catalogueOnlyView(entry);
            cJSON_AddNullToObject(view, "data");
        }
        addDefinition(view, entry);
        break;
    }
    if (view) addSummary(view);
    return view;
}

std::string ControlService::handle(const std::string& line) {
    ControlRequest request;
    std::string problem = parseControlRequest(line, request);
    if (!problem.empty()) return errorReply("bad_request", problem);
    switch (request.kind) {
        case ControlRequest::Kind::Status: return okReply("status", status());
        case ControlRequest::Kind::Models: return okReply("models", models());
        case ControlRequest::Kind::Model: {
            cJSON* view = modelView(request.engine, request.name);
            if (!view)
                return errorReply("not_found",
                                  "no model named \"" + request.name + "\" has been reported or catalogued");
            return okReply("model", view);
        }
        case ControlRequest::Kind::Alarms: {
            wljson::Ptr list(m_ledger.alarmsJson(request.filter));
            cJSON_AddBoolToObject(list.get(), "ok", true);
            return wljson::print(list.get());
        }
        case ControlRequest::Kind::Alarm: {
            cJSON* alarm = m_ledger.alarmJson(request.id);
            if (!alarm) return errorReply("not_found", "no alarm with id " + request.id + " is among the alarms kept");
            return okReply("alarm", alarm);
        }
        case ControlRequest::Kind::Module: {
            if (!m_sources.setModule) return errorReply("failed", "this agent cannot switch the module");
            std::string failure = m_sources.setModule(request.on);
            if (!failure.empty()) return errorReply("failed", failure);
            return okReply("module", cJSON_CreateString(request.on ? "on" : "off"));
        }
    }
    return errorReply("bad_request", "unknown request");
}

}  // namespace wlagent
