#include "report_ledger.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "json_util.h"

namespace wlagent {
namespace {

const char* const kKnownTypes[] = {"model",      "learn_status", "alarm", "rasp_model", "rasp_learn_status",
                                   "rasp_alarm", "open_proc"};

std::string engineOf(const std::string& type) {
    if (type == "model" || type == "learn_status" || type == "alarm") return "host";
    if (type.rfind("rasp_", 0) == 0) return "app";
    return "";
}

bool isKnownType(const std::string& type) {
    for (const char* known : kKnownTypes) {
        if (type == known) return true;
    }
    return false;
}

std::string lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string printTime(std::time_t when) {
    if (when == 0) return "";
    std::tm local{};
    ::localtime_r(&when, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

void addTime(cJSON* object, const char* key, std::time_t when) {
    if (when == 0) {
        cJSON_AddNullToObject(object, key);
    } else {
        cJSON_AddNumberToObject(object, key, static_cast<double>(when));
    }
}

// Each model element of a learn status or model data payload: one object, or
// {"models": [...]} for all models at once.
template <typename Fn>
void forEachModel(const cJSON* payload, Fn fn) {
    const cJSON* list = wljson::get(payload, "models");
    if (cJSON_IsArray(list)) {
        const cJSON* item = nullptr;
        cJSON_ArrayForEach(item, list) {
            if (cJSON_IsObject(item)) fn(item);
        }
    } else if (cJSON_IsObject(payload)) {
        fn(payload);
    }
}

// One line of at most max bytes; a longer one is consumed and reported as such.
enum class Line { Ok, TooLong, End };
Line readLine(std::istream& in, std::string& line, size_t max) {
    line.clear();
    bool tooLong = false;
    std::istreambuf_iterator<char> it(in), end;
    if (it == end) return Line::End;
    for (; it != end; ++it) {
        char c = *it;
        if (c == '\n') {
            ++it;
            break;
        }
        if (line.size() < max) {
            line.push_back(c);
        } else {
            tooLong = true;
        }
    }
    return tooLong ? Line::TooLong : Line::Ok;
}

}  // namespace

std::string alarmKind(const std::string& reportType, const cJSON* payload) {
    if (reportType == "rasp_alarm") return lower(wljson::text(payload, "action", "unknown"));
    static const std::map<std::string, std::string> kHostKinds = {
        {"PROCESS_CREATION", "process"},      {"FILE_CREATION", "file-create"},
        {"FILE_MODIFICATION", "file-modify"}, {"FILE_DELETION", "file-delete"},
        {"FILE_RENAMING", "file-rename"},     {"FILE_TIME_MODIFICATION", "file-time"},
        {"NETWORK_CONNECTION", "connect"},    {"DNS_QUERY", "dns"},
        {"HOST_PORT_LISTENING", "listen"}};
    std::string id = wljson::text(payload, "event_id", "unknown");
    auto it = kHostKinds.find(id);
    return it != kHostKinds.end() ? it->second : lower(id);
}

std::string alarmSubject(const cJSON* payload) {
    auto port = [&](const char* key) {
        const cJSON* item = wljson::get(payload, key);
        if (cJSON_IsNumber(item)) return std::to_string(static_cast<long long>(item->valuedouble));
        if (cJSON_IsString(item) && item->valuestring) return std::string(item->valuestring);
        return std::string();
    };
    // Runtime-application first: its subject keys say what the request did.
    for (const char* key : {"sql_command", "query_name", "file_name"}) {
        std::string value = wljson::text(payload, key);
        if (!value.empty()) return value;
    }
    std::string host = wljson::text(payload, "hostName");
    if (!host.empty()) return host + (port("dst_port").empty() ? "" : ":" + port("dst_port"));
    std::string dst = wljson::text(payload, "dst_ip");
    if (!dst.empty()) return dst + (port("dst_port").empty() ? "" : " port " + port("dst_port"));
    std::string address = wljson::text(payload, "address");
    if (!address.empty() || wljson::has(payload, "port")) return address + " port " + port("port");
    std::string command = wljson::text(payload, "process_cmd_line");
    if (!command.empty()) return command;
    return wljson::text(payload, "process_path");
}

std::time_t parseSendTime(const std::string& text) {
    std::tm local{};
    const char* end = ::strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &local);
    if (!end || *end != '\0') return 0;
    local.tm_isdst = -1;
    std::time_t when = std::mktime(&local);
    return when == static_cast<std::time_t>(-1) ? 0 : when;
}

ReportLedger::ReportLedger(LedgerLimits limits) : m_limits(limits) {}

bool ReportLedger::record(const std::string& envelope, std::time_t seen) {
    if (envelope.size() > m_limits.maxReportBytes) {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_tooLarge;
        return false;
    }
    wljson::Ptr root = wljson::parse(envelope);
    std::string type = wljson::text(root.get(), "type");
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!root || type.empty() || !isKnownType(type) || !wljson::has(root.get(), type.c_str())) {
        ++m_unreadable;
        return false;
    }
    recordLocked(root.get(), type, seen);
    return true;
}

void ReportLedger::recordLost(const std::string& envelope) {
    wljson::Ptr root = wljson::parse(envelope);
    std::string type = wljson::text(root.get(), "type");
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_types[isKnownType(type) ? type : "unreadable"].lost;
}

void ReportLedger::recordLocked(const cJSON* envelope, const std::string& type, std::time_t seen) {
    TypeStats& stats = m_types[type];
    ++stats.count;
    stats.last = std::max(stats.last, seen);
    std::string seq = wljson::text(envelope, "seq_id");
    char* end = nullptr;
    unsigned long long sequence = std::strtoull(seq.c_str(), &end, 10);
    if (!seq.empty() && end && *end == '\0') m_highestSequence = std::max<uint64_t>(m_highestSequence, sequence);

    const cJSON* payload = wljson::get(envelope, type.c_str());
    std::string engine = engineOf(type);
    if (type == "learn_status" || type == "rasp_learn_status" || type == "model" || type == "rasp_model") {
        bool isStatus = type.find("learn_status") != std::string::npos;
        forEachModel(payload, [&](const cJSON* element) { rememberModel(engine, element, isStatus, seen); });
        return;
    }
    if (type != "alarm" && type != "rasp_alarm") return;
    Alarm alarm;
    alarm.id = seq;
    alarm.type = type;
    alarm.engine = engine;
    alarm.model = wljson::text(payload, "model_name");
    alarm.kind = alarmKind(type, payload);
    alarm.word = lower(wljson::text(payload, type == "alarm" ? "event_id" : "action"));
    alarm.subject = alarmSubject(payload);
    alarm.sendTime = wljson::text(envelope, "send_time");
    alarm.seen = seen;
    alarm.payload = wljson::print(payload);
    if (ModelState* model = modelSlot(engine, alarm.model)) {
        ++model->alarms;
        model->lastAlarm = std::max(model->lastAlarm, seen);
    }
    keepAlarm(std::move(alarm));
}

ReportLedger::ModelState* ReportLedger::modelSlot(const std::string& engine, const std::string& name) {
    ModelKey key(engine, name);
    auto it = m_models.find(key);
    if (it != m_models.end()) return &it->second;
    if (m_models.size() >= m_limits.maxModels) {
        ++m_modelsRefused;
        return nullptr;
    }
    return &m_models[key];
}

void ReportLedger::rememberModel(const std::string& engine, const cJSON* element, bool isStatus, std::time_t seen) {
    std::string name = wljson::text(element, "model_name");
    if (name.empty()) return;
    ModelState* model = modelSlot(engine, name);
    if (!model) return;
    if (isStatus) {
        model->status = wljson::print(element);
        model->statusAt = seen;
        return;
    }
    m_modelDataBytes -= model->data.size();
    model->data = wljson::print(element);
    model->dataAt = seen;
    ++model->dataReports;
    model->dataEvicted = false;
    m_modelDataBytes += model->data.size();
    trimModelData();
}

// The oldest learned data goes first; its model keeps its status and counts.
void ReportLedger::trimModelData() {
    while (m_modelDataBytes > m_limits.maxModelDataBytes) {
        ModelState* oldest = nullptr;
        for (auto& entry : m_models) {
            if (!entry.second.data.empty() && (!oldest || entry.second.dataAt < oldest->dataAt)) oldest = &entry.second;
        }
        if (!oldest) break;
        m_modelDataBytes -= oldest->data.size();
        std::string().swap(oldest->data);
        oldest->dataEvicted = true;
        ++m_modelDataEvicted;
    }
}

void ReportLedger::keepAlarm(Alarm alarm) {
    alarm.ordinal = m_nextOrdinal++;
    m_alarmBytes += alarm.payload.size();
    m_alarms.push_back(std::move(alarm));
    while (!m_alarms.empty() && (m_alarms.size() > m_limits.maxAlarms || m_alarmBytes > m_limits.maxAlarmBytes)) {
        m_alarmBytes -= m_alarms.front().payload.size();
        m_alarms.pop_front();
        ++m_alarmsEvicted;
    }
}

void ReportLedger::replaySpool(const std::string& dir, std::vector<std::string>& problems) {
    std::vector<std::string> files;  // newest first
    files.push_back(dir + "/reports.jsonl");
    for (int n = 1; n < 10000; ++n) {
        std::string rotated = dir + "/reports.jsonl." + std::to_string(n);
        struct stat st;
        if (::stat(rotated.c_str(), &st) != 0) break;
        files.push_back(rotated);
    }
    // Only the newest maxReplayBytes are read; older bytes are skipped whole.
    std::vector<std::pair<std::string, off_t>> plan;  // file, offset to start at
    size_t budget = m_limits.maxReplayBytes;
    uint64_t skipped = 0, replayed = 0;
    for (const std::string& file : files) {
        struct stat st;
        if (::stat(file.c_str(), &st) != 0) continue;
        size_t size = static_cast<size_t>(st.st_size);
        if (budget == 0) {
            skipped += size;
            continue;
        }
        off_t start = size > budget ? static_cast<off_t>(size - budget) : 0;
        skipped += static_cast<uint64_t>(start);
        budget -= size - static_cast<size_t>(start);
        plan.emplace_back(file, start);
    }
    for (auto it = plan.rbegin(); it != plan.rend(); ++it) {
        std::ifstream in(it->first, std::ios::binary);
        if (!in) {
            problems.push_back("cannot read " + it->first);
            continue;
        }
        in.seekg(it->second);
        std::string line;
        if (it->second > 0) readLine(in, line, m_limits.maxReportBytes);  // the cut line
        for (;;) {
            Line got = readLine(in, line, m_limits.maxReportBytes);
            if (got == Line::End) break;
            if (got == Line::TooLong) {
                std::lock_guard<std::mutex> lock(m_mutex);
                ++m_tooLarge;
                continue;
            }
            if (line.empty()) continue;
            wljson::Ptr root = wljson::parse(line);
            std::time_t seen = parseSendTime(wljson::text(root.get(), "send_time"));
            if (record(line, seen)) ++replayed;
        }
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_replayed += replayed;
    m_replaySkippedBytes += skipped;
}

uint64_t ReportLedger::highestSequence() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_highestSequence;
}

cJSON* ReportLedger::reportsJson() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    cJSON* out = cJSON_CreateObject();
    cJSON* byType = cJSON_AddObjectToObject(out, "by_type");
    for (const char* type : kKnownTypes) {
        auto it = m_types.find(type);
        TypeStats stats = it != m_types.end() ? it->second : TypeStats();
        cJSON* entry = cJSON_AddObjectToObject(byType, type);
        wljson::addU64(entry, "count", stats.count);
        wljson::addU64(entry, "lost", stats.lost);
        addTime(entry, "last", stats.last);
        cJSON_AddStringToObject(entry, "last_text", printTime(stats.last).c_str());
    }
    auto unreadableLost = m_types.find("unreadable");
    wljson::addU64(out, "lost_unreadable", unreadableLost != m_types.end() ? unreadableLost->second.lost : 0);
    wljson::addU64(out, "unreadable", m_unreadable);
    wljson::addU64(out, "too_large", m_tooLarge);
    wljson::addU64(out, "alarms_kept", m_alarms.size());
    wljson::addU64(out, "alarms_evicted", m_alarmsEvicted);
    wljson::addU64(out, "models_refused", m_modelsRefused);
    wljson::addU64(out, "model_data_evicted", m_modelDataEvicted);
    wljson::addU64(out, "replayed", m_replayed);
    wljson::addU64(out, "replay_skipped_bytes", m_replaySkippedBytes);
    return out;
}

cJSON* ReportLedger::modelToJson(const ModelKey& key, const ModelState& state, bool withData) const {
    cJSON* out = cJSON_CreateObject();
    cJSON_AddStringToObject(out, "engine", key.first.c_str());
    cJSON_AddStringToObject(out, "name", key.second.c_str());
    cJSON* status = state.status.empty() ? nullptr : cJSON_Parse(state.status.c_str());
    if (status) {
        cJSON_AddItemToObject(out, "status", status);
    } else {
        cJSON_AddNullToObject(out, "status");
    }
    addTime(out, "status_at", state.statusAt);
    wljson::addU64(out, "alarms", state.alarms);
    addTime(out, "last_alarm", state.lastAlarm);
    addTime(out, "data_at", state.dataAt);
    wljson::addU64(out, "data_reports", state.dataReports);
    cJSON_AddBoolToObject(out, "data_evicted", state.dataEvicted);
    if (withData) {
        cJSON* data = state.data.empty() ? nullptr : cJSON_Parse(state.data.c_str());
        if (data) {
            cJSON_AddItemToObject(out, "data", data);
        } else {
            cJSON_AddNullToObject(out, "data");
        }
    }
    return out;
}

cJSON* ReportLedger::modelsJson(bool withData) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    cJSON* out = cJSON_CreateArray();
    for (const auto& entry : m_models) {
        if (entry.first.second.empty()) continue;
        cJSON_AddItemToArray(out, modelToJson(entry.first, entry.second, withData));
    }
    return out;
}

cJSON* ReportLedger::modelJson(const std::string& engine, const std::string& name) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const char* candidate : {"host", "app"}) {
        if (!engine.empty() && engine != candidate) continue;
        auto it = m_models.find(ModelKey(candidate, name));
        if (it != m_models.end()) return modelToJson(it->first, it->second, true);
    }
    return nullptr;
}

cJSON* ReportLedger::alarmToJson(const Alarm& alarm, bool withPayload) {
    cJSON* out = cJSON_CreateObject();
    cJSON_AddStringToObject(out, "id", alarm.id.c_str());
    wljson::addU64(out, "ordinal", alarm.ordinal);
    cJSON_AddStringToObject(out, "type", alarm.type.c_str());
    cJSON_AddStringToObject(out, "engine", alarm.engine.c_str());
    cJSON_AddStringToObject(out, "model", alarm.model.c_str());
    cJSON_AddStringToObject(out, "kind", alarm.kind.c_str());
    cJSON_AddStringToObject(out, "subject", alarm.subject.c_str());
    cJSON_AddStringToObject(out, "send_time", alarm.sendTime.c_str());
    addTime(out, "seen", alarm.seen);
    if (withPayload) {
        cJSON* payload = cJSON_Parse(alarm.payload.c_str());
        if (payload) {
            cJSON_AddItemToObject(out, "alarm", payload);
        } else {
            cJSON_AddNullToObject(out, "alarm");
        }
    }
    return out;
}

cJSON* ReportLedger::alarmsJson(const AlarmFilter& filter) const {
    std::string kind = lower(filter.kind);
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<const Alarm*> picked;
    for (auto it = m_alarms.rbegin(); it != m_alarms.rend() && picked.size() < filter.limit; ++it) {
        const Alarm& alarm = *it;
        if (alarm.ordinal <= filter.after) break;
        if (!filter.model.empty() && alarm.model != filter.model) continue;
        if (!kind.empty() && alarm.kind != kind && alarm.word != kind && alarm.kind.rfind(kind + "-", 0) != 0) continue;
        if (filter.since != 0 && alarm.seen < filter.since) continue;
        picked.push_back(&alarm);
    }
    cJSON* out = cJSON_CreateObject();
    cJSON* list = cJSON_AddArrayToObject(out, "alarms");
    for (auto it = picked.rbegin(); it != picked.rend(); ++it) cJSON_AddItemToArray(list, alarmToJson(**it, true));
    wljson::addU64(out, "next", m_nextOrdinal - 1);
    wljson::addU64(out, "evicted", m_alarmsEvicted);
    return out;
}

cJSON* ReportLedger::alarmJson(const std::string& id) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto it = m_alarms.rbegin(); it != m_alarms.rend(); ++it) {
        if (it->id == id) return alarmToJson(*it, true);
    }
    return nullptr;
}

}  // namespace wlagent
