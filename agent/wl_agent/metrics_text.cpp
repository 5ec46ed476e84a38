#include "metrics_text.h"

#include <cmath>
#include <cstdio>

#include "json_util.h"

namespace wlagent {

std::string metricName(const std::string& text) {
    std::string out;
    for (char c : text) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
        out += ok ? c : '_';
    }
    return out;
}

std::string labelValue(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '"') {
            out += "\\\"";
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out;
}

void MetricsWriter::family(const std::string& name, const char* type, const std::string& help) {
    auto it = m_families.find(name);
    if (it != m_families.end()) return;
    m_order.push_back(name);
    m_families[name] = Family{type, help, {}};
}

void MetricsWriter::sample(const std::string& name, const MetricLabels& labels, double value) {
    family(name, "untyped", "");
    std::string line = name;
    if (!labels.empty()) {
        line += '{';
        for (size_t i = 0; i < labels.size(); ++i) {
            line += (i ? "," : "") + labels[i].first + "=\"" + labelValue(labels[i].second) + "\"";
        }
        line += '}';
    }
    char number[64];
    if (std::isnan(value)) {
        std::snprintf(number, sizeof number, "NaN");
    } else {
        std::snprintf(number, sizeof number, "%.17g", value);
    }
    m_families[name].samples.push_back(line + " " + number);
}

std::string MetricsWriter::text() const {
    std::string out;
    for (const std::string& name : m_order) {
        const Family& family = m_families.at(name);
        if (family.samples.empty()) continue;
        if (!family.help.empty()) out += "# HELP " + name + " " + family.help + "\n";
        out += "# TYPE " + name + " " + family.type + "\n";
        for (const std::string& sample : family.samples) out += sample + "\n";
    }
    return out;
}

namespace {

// Counters of a library whose keys this agent does not fix: each number is a
// sample named after its own key, labelled with the keys above it.
void flatten(MetricsWriter& out, const std::string& prefix, const cJSON* object, const std::string& scope) {
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, object) {
        std::string key = item->string ? item->string : "";
        if (cJSON_IsObject(item)) {
            flatten(out, prefix, item, scope.empty() ? key : scope + "." + key);
        } else if (cJSON_IsNumber(item) || cJSON_IsBool(item)) {
            double value = cJSON_IsNumber(item) ? item->valuedouble : cJSON_IsTrue(item) ? 1 : 0;
            std::string name = prefix + metricName(key);
            out.family(name, "untyped", "");
            out.sample(name, scope.empty() ? MetricLabels{} : MetricLabels{{"scope", scope}}, value);
        }
    }
}

void collectorMetrics(MetricsWriter& out, const cJSON* collector) {
    const cJSON* status = wljson::get(collector, "status");
    out.family("wl_collector_up", "gauge", "1 when the action collector answered its status request");
    out.sample("wl_collector_up", {{"state", wljson::text(collector, "state")}}, cJSON_IsObject(status) ? 1 : 0);
    if (!cJSON_IsObject(status)) return;
    out.family("wl_collector_watched_pids", "gauge", "Process ids the collector watches for the models");
    out.sample("wl_collector_watched_pids", {{"backend", wljson::text(status, "backend")}},
               cJSON_GetArraySize(wljson::get(status, "watched")));
    out.family("wl_collector_lost_kernel_total", "counter", "Events lost in the kernel's ring buffer, all kinds");
    out.sample("wl_collector_lost_kernel_total", {}, wljson::number(status, "lost_kernel"));
    out.family("wl_collector_lost_backend_total", "counter", "Events lost in the collector's back-end before sorting");
    out.sample("wl_collector_lost_backend_total", {}, wljson::number(status, "lost_backend"));
    out.family("wl_collector_events_received_total", "counter", "Events the collector received, by kind");
    out.family("wl_collector_events_sent_total", "counter", "Events the collector sent to the agent, by kind");
    out.family("wl_collector_events_lost_total", "counter",
               "Events lost by kind and stage: kernel ring buffer, user-space queue, socket");
    const cJSON* kind = nullptr;
    cJSON_ArrayForEach(kind, wljson::get(status, "kinds")) {
        std::string name = kind->string ? kind->string : "";
        out.sample("wl_collector_events_received_total", {{"kind", name}}, wljson::number(kind, "received"));
        out.sample("wl_collector_events_sent_total", {{"kind", name}}, wljson::number(kind, "sent"));
        out.sample("wl_collector_events_lost_total", {{"kind", name}, {"stage", "kernel"}},
                   wljson::number(kind, "lost_kernel"));
        out.sample("wl_collector_events_lost_total", {{"kind", name}, {"stage", "user"}},
                   wljson::number(kind, "lost_queue"));
        out.sample("wl_collector_events_lost_total", {{"kind", name}, {"stage", "socket"}},
                   wljson::number(kind, "lost_socket"));
    }
}

void reportMetrics(MetricsWriter& out, const cJSON* reports) {
    out.family("wl_reports_total", "counter", "Reports the module handed to the upload service, by type");
    out.family("wl_reports_lost_total", "counter", "Reports the upload service could not take, by type");
    out.family("wl_report_last_timestamp_seconds", "gauge", "When the last report of the type went out");
    const cJSON* type = nullptr;
    cJSON_ArrayForEach(type, wljson::get(reports, "by_type")) {
        std::string name = type->string ? type->string : "";
        out.sample("wl_reports_total", {{"type", name}}, wljson::number(type, "count"));
        out.sample("wl_reports_lost_total", {{"type", name}}, wljson::number(type, "lost"));
        const cJSON* last = wljson::get(type, "last");
        if (cJSON_IsNumber(last)) out.sample("wl_report_last_timestamp_seconds", {{"type", name}}, last->valuedouble);
    }
    out.family("wl_reports_unreadable_total", "counter", "Envelopes the agent could not read (not counted by type)");
    out.sample("wl_reports_unreadable_total", {},
               wljson::number(reports, "unreadable") + wljson::number(reports, "too_large"));
    out.family("wl_alarms_evicted_total", "counter", "Alarms no longer kept for wlctl (the oldest go first)");
    out.sample("wl_alarms_evicted_total", {}, wljson::number(reports, "alarms_evicted"));
}

void forwarderMetrics(MetricsWriter& out, const cJSON* forwarder) {
    if (!cJSON_IsObject(forwarder)) return;
    out.family("wl_forwarder_sink_up", "gauge", "1 when the sink took the last batch");
    out.family("wl_forwarder_sent_total", "counter", "Reports sent, per sink");
    out.family("wl_forwarder_failed_total", "counter", "Reports that failed to send, per sink");
    out.family("wl_forwarder_backlog_bytes", "gauge", "Spooled bytes not yet sent, per sink");
    const cJSON* sink = nullptr;
    cJSON_ArrayForEach(sink, wljson::get(forwarder, "sinks")) {
        MetricLabels labels{{"sink", sink->string ? sink->string : ""}};
        const cJSON* up = wljson::get(sink, "up");
        out.sample("wl_forwarder_sink_up", labels, cJSON_IsTrue(up) ? 1 : 0);
        out.sample("wl_forwarder_sent_total", labels, wljson::number(sink, "sent"));
        out.sample("wl_forwarder_failed_total", labels, wljson::number(sink, "failed"));
        out.sample("wl_forwarder_backlog_bytes", labels, wljson::number(sink, "backlog_bytes"));
    }
    const cJSON* spool = wljson::get(forwarder, "spool");
    out.family("wl_spool_bytes", "gauge", "Bytes in the report spool");
    out.sample("wl_spool_bytes", {}, wljson::number(spool, "bytes"));
    out.family("wl_spool_dropped_total", "counter", "Reports dropped because the spool was full");
    out.sample("wl_spool_dropped_total", {}, wljson::number(spool, "dropped"));
}

void modelMetrics(MetricsWriter& out, const cJSON* models) {
    out.family("wl_model_alarms_total", "counter", "Alarms reported, per model");
    out.family("wl_model_learning_progress", "gauge", "Share of the learning period done (1 when filtering)");
    out.family("wl_model_features", "gauge", "Features the model has learned");
    out.family("wl_alarms_total", "counter", "Alarms reported, per engine");
    double host = 0, app = 0;
    const cJSON* model = nullptr;
    cJSON_ArrayForEach(model, models) {
        std::string engine = wljson::text(model, "engine");
        MetricLabels labels{{"engine", engine}, {"model", wljson::text(model, "name")}};
        double alarms = wljson::number(model, "alarms");
        (engine == "app" ? app : host) += alarms;
        out.sample("wl_model_alarms_total", labels, alarms);
        const cJSON* progress = wljson::get(model, "progress");
        if (cJSON_IsNumber(progress)) out.sample("wl_model_learning_progress", labels, progress->valuedouble);
        const cJSON* features = wljson::get(model, "features");
        if (cJSON_IsNumber(features)) out.sample("wl_model_features", labels, features->valuedouble);
    }
    out.sample("wl_alarms_total", {{"engine", "host"}}, host);
    out.sample("wl_alarms_total", {{"engine", "app"}}, app);
}

}  // namespace

std::string renderMetrics(const cJSON* status, const cJSON* models) {
    MetricsWriter out;
    const cJSON* agent = wljson::get(status, "agent");
    out.family("wl_agent_info", "gauge", "The agent's version");
    out.sample("wl_agent_info", {{"version", wljson::text(agent, "version")}}, 1);
    out.family("wl_agent_uptime_seconds", "gauge", "Seconds since the agent started");
    out.sample("wl_agent_uptime_seconds", {}, wljson::number(agent, "uptime_seconds"));

    const cJSON* module = wljson::get(status, "module");
    out.family("wl_module_switch", "gauge", "The white-list module's switches: host (module switch) and centre");
    for (const char* key : {"host_switch", "centre_switch"}) {
        const cJSON* value = wljson::get(module, key);
        if (cJSON_IsBool(value)) {
            out.sample("wl_module_switch", {{"switch", std::string(key).substr(0, std::string(key).find('_'))}},
                       cJSON_IsTrue(value) ? 1 : 0);
        }
    }

    const cJSON* engines = wljson::get(status, "engines");
    out.family("wl_counters_available", "gauge", "1 when the library reports its counters");
    for (const char* part : {"bus", "telemetry", "module"}) {
        const cJSON* counters = wljson::get(engines, part);
        out.sample("wl_counters_available", {{"library", part}}, cJSON_IsObject(counters) ? 1 : 0);
        if (cJSON_IsObject(counters)) flatten(out, std::string("wl_") + part + "_", counters, "");
    }

    collectorMetrics(out, wljson::get(status, "collector"));
    reportMetrics(out, wljson::get(status, "reports"));
    forwarderMetrics(out, wljson::get(status, "forwarder"));
    modelMetrics(out, models);

    const cJSON* service = wljson::get(status, "service");
    if (cJSON_IsObject(service)) flatten(out, "wl_service_", service, "");
    return out.text();
}

}  // namespace wlagent
