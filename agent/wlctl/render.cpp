#include "render.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace wlctl {
namespace {

const cJSON* get(const cJSON* object, const char* key) {
    return cJSON_IsObject(object) ? cJSON_GetObjectItemCaseSensitive(object, key) : nullptr;
}

std::string text(const cJSON* object, const char* key, const std::string& fallback = "") {
    const cJSON* item = get(object, key);
    if (cJSON_IsString(item) && item->valuestring) return item->valuestring;
    if (cJSON_IsNumber(item)) return std::to_string(static_cast<long long>(item->valuedouble));
    if (cJSON_IsBool(item)) return cJSON_IsTrue(item) ? "true" : "false";
    return fallback;
}

double number(const cJSON* object, const char* key, double fallback = 0) {
    const cJSON* item = get(object, key);
    return cJSON_IsNumber(item) ? item->valuedouble : fallback;
}

std::string count(double value) { return std::to_string(static_cast<long long>(value)); }

std::string localTime(double when) {
    if (when <= 0) return "never";
    std::time_t t = static_cast<std::time_t>(when);
    std::tm local{};
    ::localtime_r(&t, &local);
    char out[32];
    std::strftime(out, sizeof out, "%Y-%m-%d %H:%M:%S", &local);
    return out;
}

std::string pad(const std::string& text, size_t width) {
    return text.size() >= width ? text + " " : text + std::string(width - text.size(), ' ');
}

std::string onOff(const cJSON* object, const char* key, const Style& style) {
    const cJSON* item = get(object, key);
    if (!cJSON_IsBool(item)) return style.warn("unknown");
    return cJSON_IsTrue(item) ? style.good("on") : style.bad("off");
}

// "name=value" of the numbers of a counters object, nested keys joined by ".".
void flatCounters(const cJSON* object, const std::string& prefix, std::string& out) {
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, object) {
        std::string key = prefix.empty() ? item->string : prefix + "." + item->string;
        if (cJSON_IsObject(item)) {
            flatCounters(item, key, out);
        } else if (cJSON_IsNumber(item)) {
            out += (out.empty() ? "" : " ") + key + "=" + count(item->valuedouble);
        }
    }
}

std::string periodWord(const std::string& period, const Style& style) {
    if (period == "learning") return style.warn("learning");
    if (period == "filtering") return style.good("filtering");
    return style.dim("unknown");
}

}  // namespace

std::string Style::good(const std::string& t) const { return colour ? "\033[32m" + t + "\033[0m" : t; }
std::string Style::warn(const std::string& t) const { return colour ? "\033[33m" + t + "\033[0m" : t; }
std::string Style::bad(const std::string& t) const { return colour ? "\033[31m" + t + "\033[0m" : t; }
std::string Style::dim(const std::string& t) const { return colour ? "\033[2m" + t + "\033[0m" : t; }
std::string Style::bold(const std::string& t) const { return colour ? "\033[1m" + t + "\033[0m" : t; }

std::string progressBar(double share, int width) {
    if (share < 0 || std::isnan(share)) return "[" + std::string(static_cast<size_t>(width), '?') + "]   unknown";
    if (share > 1) share = 1;
    int filled = static_cast<int>(std::floor(share * width + 1e-9));
    char percent[8];
    std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(std::floor(share * 100 + 1e-9)));
    return "[" + std::string(static_cast<size_t>(filled), '#') + std::string(static_cast<size_t>(width - filled), '.') +
           "] " + percent;
}

std::string duration(double seconds) {
    long long s = seconds < 0 ? 0 : static_cast<long long>(seconds);
    long long d = s / 86400, h = s % 86400 / 3600, m = s % 3600 / 60, r = s % 60;
    if (d > 0) return std::to_string(d) + "d " + std::to_string(h) + "h";
    if (h > 0) return std::to_string(h) + "h " + std::to_string(m) + "m";
    if (m > 0) return std::to_string(m) + "m " + std::to_string(r) + "s";
    return std::to_string(r) + "s";
}

bool parseSince(const std::string& text, std::time_t now, std::time_t& out) {
    if (text.empty()) return false;
    size_t digits = text.find_first_not_of("0123456789");
    if (digits == std::string::npos) {
        if (text.size() > 12) return false;
        out = static_cast<std::time_t>(std::strtoll(text.c_str(), nullptr, 10));
        return true;
    }
    if (digits > 0 && digits + 1 == text.size() && digits <= 9) {
        long long amount = std::strtoll(text.c_str(), nullptr, 10);
        long long unit = 0;
        switch (text.back()) {
            case 's': unit = 1; break;
            case 'm': unit = 60; break;
            case 'h': unit = 3600; break;
            case 'd': unit = 86400; break;
            default: return false;
        }
        out = now - static_cast<std::time_t>(amount * unit);
        return true;
    }
    for (const char* format : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        std::tm local{};
        const char* end = ::strptime(text.c_str(), format, &local);
        if (!end || *end != '\0') continue;
        local.tm_isdst = -1;
        std::time_t when = std::mktime(&local);
        if (when == static_cast<std::time_t>(-1)) return false;
        out = when;
        return true;
    }
    return false;
}

std::string formatStatus(const cJSON* status, const Style& style) {
    std::string out;
    const cJSON* agent = get(status, "agent");
    out += style.bold("agent") + "      pid " + text(agent, "pid", "?") + ", version " + text(agent, "version", "?") +
           ", up " + duration(number(agent, "uptime_seconds")) + "\n";
    out += "           root " + text(agent, "root") + ", settings " + text(agent, "config") + "\n";
    std::string metrics = text(agent, "metrics");
    out += "           metrics " + (metrics.empty() ? style.dim("off") : "http://" + metrics + "/metrics") + "\n";

    const cJSON* module = get(status, "module");
    const cJSON* loaded = get(module, "loaded");
    out += style.bold("module") + "     " + (cJSON_IsTrue(loaded) ? style.good("loaded") : style.bad("not loaded")) +
           ", host switch " + onOff(module, "host_switch", style) + ", config centre " +
           onOff(module, "centre_switch", style) + "\n";

    const cJSON* engines = get(status, "engines");
    for (const char* part : {"bus", "telemetry", "module"}) {
        const cJSON* counters = get(engines, part);
        std::string line;
        if (cJSON_IsObject(counters)) flatCounters(counters, "", line);
        out += style.bold(pad(std::string(part) == "module" ? "queues" : part, 10)) + " " +
               (cJSON_IsObject(counters) ? (line.empty() ? "no counters" : line) : style.dim("counters unknown")) +
               "\n";
    }

    const cJSON* collector = get(status, "collector");
    const cJSON* cs = get(collector, "status");
    out += style.bold("collector") + "  " + text(collector, "state", "unknown");
    if (cJSON_IsObject(cs)) {
        out += ", back-end " + text(cs, "backend", "?") + ", pid " + text(cs, "pid", "?") + ", watching " +
               count(cJSON_GetArraySize(get(cs, "watched"))) + " pid(s)\n";
        double received = 0, sent = 0;
        const cJSON* kind = nullptr;
        cJSON_ArrayForEach(kind, get(cs, "kinds")) {
            received += number(kind, "received");
            sent += number(kind, "sent");
        }
        out += "           events received " + count(received) + ", sent " + count(sent) + "\n";
    } else {
        std::string error = text(collector, "error");
        out += error.empty() ? "\n" : " (" + error + ")\n";
    }

    const cJSON* reports = get(status, "reports");
    out += style.bold("reports") + "\n";
    const cJSON* type = nullptr;
    cJSON_ArrayForEach(type, get(reports, "by_type")) {
        double lost = number(type, "lost");
        out += "  " + pad(type->string, 18) + pad(count(number(type, "count")), 8) + "last " +
               localTime(number(type, "last")) + (lost > 0 ? "  " + style.bad(count(lost) + " lost") : "") + "\n";
    }

    const cJSON* forwarder = get(status, "forwarder");
    out += style.bold("forwarder") + "  ";
    if (!cJSON_IsObject(forwarder)) {
        out += style.dim("no status (reports stay in the spool)") + "\n";
    } else {
        out += (cJSON_IsTrue(get(forwarder, "running")) ? style.good("running") : style.bad("not running")) + "\n";
        const cJSON* sink = nullptr;
        cJSON_ArrayForEach(sink, get(forwarder, "sinks")) {
            bool enabled = !cJSON_IsFalse(get(sink, "enabled"));
            std::string state = !enabled                        ? style.dim("disabled")
                                : cJSON_IsTrue(get(sink, "up")) ? style.good("up")
                                                                : style.bad("down");
            std::string error = text(sink, "last_error");
            out += "  " + pad(sink->string, 10) + pad(state, style.colour ? 17 : 9) + "sent " +
                   count(number(sink, "sent")) + ", failed " + count(number(sink, "failed")) + ", backlog " +
                   count(number(sink, "backlog_bytes")) + " B" + (error.empty() ? "" : " (" + error + ")") + "\n";
        }
    }

    std::string drops;
    const cJSON* drop = nullptr;
    cJSON_ArrayForEach(drop, get(status, "drops")) {
        if (cJSON_IsNumber(drop) && drop->valuedouble > 0)
            drops += (drops.empty() ? "" : ", ") + std::string(drop->string) + " " + count(drop->valuedouble);
    }
    out += style.bold("drops") + "      " + (drops.empty() ? style.good("none") : style.bad(drops)) + "\n";
    return out;
}

std::string formatModels(const cJSON* models, const Style& style) {
    if (cJSON_GetArraySize(models) == 0) return "no models (start one with: wlctl start NAME PATH PORTS PERIOD)\n";
    std::string out = style.bold(pad("ENGINE", 6) + pad("MODEL", 22) + pad("PERIOD", 10) + pad("PROGRESS", 28) +
                                 pad("FEATURES", 9) + pad("ALARMS", 7) + "LAST ALARM") +
                      "\n";
    const cJSON* model = nullptr;
    cJSON_ArrayForEach(model, models) {
        const cJSON* status = get(model, "status");
        std::string period = text(model, "period", "unknown");
        std::string learn = cJSON_IsObject(status) ? text(status, "learn_time", "?") : "";
        const cJSON* def = get(model, "definition");
        if (learn.empty() && cJSON_IsObject(def)) learn = text(def, "study_time", "?");
        double alarms = number(model, "alarms");
        std::string periodCell =
            periodWord(period, style) + std::string(period.size() < 9 ? 10 - period.size() : 1, ' ');
        out += pad(text(model, "engine"), 6) + pad(text(model, "name"), 22) + periodCell +
               pad(progressBar(number(model, "progress", -1), 20), 28) + pad(text(model, "features", "-"), 9) +
               (alarms > 0 ? style.bad(pad(count(alarms), 7)) : pad("0", 7)) +
               (number(model, "last_alarm") > 0 ? localTime(number(model, "last_alarm")) : "-") + "\n";
        if (!cJSON_IsObject(status)) {
            out += style.dim("      (no learning status reported yet" +
                             std::string(cJSON_IsTrue(get(model, "in_catalogue")) ? "; in the catalogue" : "") + ")") +
                   "\n";
        } else if (!learn.empty()) {
            double unit = number(status, "learn_unit_seconds", 60);
            out += style.dim("      learning period " + duration(std::atof(learn.c_str()) * unit) + ", learned " +
                             duration(number(status, "learned_seconds")) +
                             (cJSON_IsTrue(get(status, "stable")) ? ", stable" : "") +
                             (number(status, "switch", 1) == 0 ? ", switched off" : "") +
                             (cJSON_IsFalse(get(status, "running")) || number(status, "running", 1) == 0
                                  ? ", application not running"
                                  : "")) +
                   "\n";
        }
    }
    return out;
}

std::string formatModel(const cJSON* model, const Style& style) {
    std::string out = style.bold("model " + text(model, "name")) + " (" +
                      (text(model, "engine") == "app" ? "runtime-application engine" : "host engine") + ")\n";
    const cJSON* def = get(model, "definition");
    if (cJSON_IsObject(def)) {
        out += "  application " + text(def, "app_name") + ", " + text(def, "process_path") + ", ports " +
               text(def, "ports") + "\n";
    }
    out += "  " + periodWord(text(model, "period", "unknown"), style) + " " +
           progressBar(number(model, "progress", -1), 30) + ", " + text(model, "features", "?") + " feature(s), " +
           count(number(model, "alarms")) + " alarm(s)\n";
    const cJSON* data = get(model, "data");
    const cJSON* features = get(data, "features");
    if (!cJSON_IsObject(features)) {
        out += cJSON_IsTrue(get(model, "data_evicted"))
                   ? "  what it learned is no longer kept by the agent; ask again to have the module report it\n"
                   : "  what it learned has not been reported yet\n";
        return out;
    }
    const cJSON* kind = nullptr;
    cJSON_ArrayForEach(kind, features) {
        out += style.bold("  " + std::string(kind->string)) + " (" + count(cJSON_GetArraySize(kind)) + ")\n";
        const cJSON* feature = nullptr;
        cJSON_ArrayForEach(feature, kind) {
            if (cJSON_IsString(feature)) out += "    " + std::string(feature->valuestring) + "\n";
        }
    }
    const cJSON* paths = get(data, "process_paths");
    if (cJSON_GetArraySize(paths) > 0) {
        std::string list;
        const cJSON* path = nullptr;
        cJSON_ArrayForEach(path, paths) {
            if (cJSON_IsString(path)) list += (list.empty() ? "" : ", ") + std::string(path->valuestring);
        }
        out += "  executables: " + list + "\n";
    }
    return out;
}

std::string formatAlarm(const cJSON* alarm, const Style& style) {
    std::string when = text(alarm, "send_time");
    if (when.empty()) when = localTime(number(alarm, "seen"));
    return style.dim(when) + "  " + style.bold(text(alarm, "id")) + "  " + text(alarm, "engine") + "/" +
           text(alarm, "model") + "  " + style.bad(text(alarm, "kind")) + "  " + text(alarm, "subject") + "\n";
}

}  // namespace wlctl
