#define WL_LOG_SOURCE "base"

#include <cwchar>
#include <vector>

#include "base.h"
#include "base_support.h"
#include "event_queues.h"
#include "whitelist_upload.h"
#include "wl_clock.h"
#include "wl_log.h"

namespace {
// Exact comparison of the record's wide period text, bounded by its field.
bool period_is(const _BASE_EVENTINFO& event, const wchar_t* period) {
    const std::size_t capacity = sizeof(event.model_status) / sizeof(event.model_status[0]);
    std::size_t length = wcsnlen(event.model_status, capacity);
    return length == wcslen(period) && wmemcmp(event.model_status, period, length) == 0;
}
}  // namespace

int BaseEngine::parseInput(_USR_INPUT* input) {
    return engine_parse_input(WL_LOG_SOURCE, m_baseEngine, &m_engineLock, input, WL_REPORT_MODEL,
                              WL_REPORT_LEARN_STATUS);
}

bool BaseEngine::isNeedSendReport(_BASE_EVENTINFO& event) {
    if (event.origin_log_flag != 0 && period_is(event, WL_LEARN_PERIOD_W)) {
        if (m_logSavePath.empty()) {
            WL_LOG(LOG_LVL_ERROR, "get log savePath error");
            return false;
        }
        m_baseEngine->saveOriginLog(event, m_logSavePath.c_str());
        return true;
    }
    if (event.match_verdict == 0) {
        std::string text = m_baseEngine->getBlackLog(event, 1);
        WL_LOG(LOG_LVL_INFO, "BlackLog : %s", text.c_str());
        whitelist_upload_data(text.c_str(), WL_REPORT_ALARM);
        return true;
    }
    if (event.delay_gate <= 1 && event.event_type != WL_EVENT_PROCESS_CREATION &&
        period_is(event, WL_FILTER_PERIOD_W)) {
        unsigned long long now = static_cast<unsigned long long>(static_cast<long long>(wl_time(nullptr)));
        OrvLockGuard queue(&g_baseDataLock);
        g_baseDelayData.emplace_back(event, now);
    }
    return true;
}

bool BaseEngine::dealAlarmEvent(std::string text) {
    if (text.empty()) {
        return false;
    }
    OrvLockGuard engine(&m_engineLock);
    if (m_baseEngine == nullptr) {
        WL_LOG(LOG_LVL_ERROR, "alarm feedback dropped: engine not running");
        return true;  // stopped engine: the feedback has nowhere to go
    }
    std::vector<_BASE_EVENTINFO> records;
    m_transformer.judgeAlarmEventType(text, records);
    for (_BASE_EVENTINFO& record : records) {
        m_baseEngine->feedbackAlarm(record);
    }
    m_baseEngine->saveModel(m_modelSavePath.c_str());
    return true;
}
