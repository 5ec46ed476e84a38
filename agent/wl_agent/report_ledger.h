// What the module has reported to the manager, as the agent saw it go by:
// counts and last time per report type, each model's latest status and data,
// and the latest alarms with their ids. Filled from every envelope handed to
// the upload service and, at start-up, from the spool files, so it survives
// restarts. Everything it keeps is bounded; what it lets go is counted.
#ifndef WL_AGENT_REPORT_LEDGER_H
#define WL_AGENT_REPORT_LEDGER_H

#include <cjson/cJSON.h>

#include <cstdint>
#include <ctime>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace wlagent {

struct LedgerLimits {
    size_t maxAlarms = 5000;
    size_t maxAlarmBytes = 16u << 20;  // alarm texts kept, all together
    size_t maxModels = 4096;
    size_t maxModelDataBytes = 64u << 20;  // learned data kept, all models together
    size_t maxReportBytes = 16u << 20;     // a longer report is counted, not read
    size_t maxReplayBytes = 256u << 20;    // of the spool files, newest first
};

struct AlarmFilter {
    std::string model;      // exact name, empty for all
    std::string kind;       // short kind or the report's own word, any case
    std::time_t since = 0;  // alarms seen at or after this time
    uint64_t after = 0;     // ordinals above this one (for following)
    size_t limit = 1000;    // the newest that many
};

// "process", "file-create", ..., "connect", "dns", "listen" for host alarms;
// the action ("execute", "read", ...) for runtime-application ones.
std::string alarmKind(const std::string& reportType, const cJSON* payload);
// What the alarm is about, in one line (command, file, address, ...).
std::string alarmSubject(const cJSON* payload);
// "YYYY-MM-DD HH:MM:SS" local time; 0 when it is not that.
std::time_t parseSendTime(const std::string& text);

class ReportLedger {
public:
    explicit ReportLedger(LedgerLimits limits = LedgerLimits());

    // One envelope as the upload service got it. False (and counted) when it
    // is not a readable envelope.
    bool record(const std::string& envelope, std::time_t seen);
    // The upload service could not take this envelope: counted per type.
    void recordLost(const std::string& envelope);
    // Reads <dir>/reports.jsonl.N ... .1 and reports.jsonl, oldest first.
    // Problems (unreadable files) are appended; bad lines are only counted.
    void replaySpool(const std::string& dir, std::vector<std::string>& problems);

    uint64_t highestSequence() const;

    // JSON views; the caller owns the result.
    cJSON* reportsJson() const;
    // Every model reported, each with its engine ("host" or "app"), status,
    // alarm count and last alarm time; learned data only when withData.
    cJSON* modelsJson(bool withData) const;
    // One model of that engine ("" for either); null when never reported.
    cJSON* modelJson(const std::string& engine, const std::string& name) const;
    // {"alarms":[oldest..newest], "next": ordinal to follow from, "evicted": N}
    cJSON* alarmsJson(const AlarmFilter& filter) const;
    // The alarm with that id (the envelope's seq_id), newest first; null if
    // no kept alarm has it.
    cJSON* alarmJson(const std::string& id) const;

private:
    struct TypeStats {
        uint64_t count = 0;
        uint64_t lost = 0;
        std::time_t last = 0;
    };
    struct ModelState {
        std::string status;  // compact JSON of the latest learn status
        std::time_t statusAt = 0;
        std::string data;  // compact JSON of the latest model data
        std::time_t dataAt = 0;
        uint64_t dataReports = 0;
        bool dataEvicted = false;
        uint64_t alarms = 0;
        std::time_t lastAlarm = 0;
    };
    struct Alarm {
        uint64_t ordinal = 0;
        std::string id;
        std::string type;
        std::string engine;
        std::string model;
        std::string kind;
        std::string word;  // the report's own event_id or action, lower case
        std::string subject;
        std::string sendTime;
        std::time_t seen = 0;
        std::string payload;
    };
    using ModelKey = std::pair<std::string, std::string>;  // engine, name

    void recordLocked(const cJSON* envelope, const std::string& type, std::time_t seen);
    void rememberModel(const std::string& engine, const cJSON* element, bool isStatus, std::time_t seen);
    ModelState* modelSlot(const std::string& engine, const std::string& name);
    void keepAlarm(Alarm alarm);
    void trimModelData();
    static cJSON* alarmToJson(const Alarm& alarm, bool withPayload);
    cJSON* modelToJson(const ModelKey& key, const ModelState& state, bool withData) const;

    LedgerLimits m_limits;
    mutable std::mutex m_mutex;
    std::map<std::string, TypeStats> m_types;
    std::map<ModelKey, ModelState> m_models;
    std::deque<Alarm> m_alarms;
    size_t m_alarmBytes = 0;
    size_t m_modelDataBytes = 0;
    uint64_t m_nextOrdinal = 1;
    uint64_t m_highestSequence = 0;
    uint64_t m_unreadable = 0;
    uint64_t m_tooLarge = 0;
    uint64_t m_alarmsEvicted = 0;
    uint64_t m_modelsRefused = 0;
    uint64_t m_modelDataEvicted = 0;
    uint64_t m_replayed = 0;
    uint64_t m_replaySkippedBytes = 0;
};

}  // namespace wlagent

#endif
