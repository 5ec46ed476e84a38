#define WL_LOG_SOURCE "rasp"

#include <vector>

#include "base_support.h"
#include "rasp.h"
#include "whitelist_upload.h"
#include "wl_log.h"

int RaspEngine::parseInput(_USR_INPUT* input) {
    return engine_parse_input(WL_LOG_SOURCE, m_raspEngine, &m_engineLock, input, WL_REPORT_RASP_MODEL,
                              WL_REPORT_RASP_LEARN_STATUS);
}

// No delay rule here: a record that is not black ends at once, and the
// verdict starts at 2, so only a library that writes 0 raises an alarm.
bool RaspEngine::isNeedSendReport(_RASP_EVENTINFO& event) {
    if (event.origin_log_flag != 0 && event.model_status == WL_LEARN_PERIOD) {
        if (m_logSavePath.empty()) {
            WL_LOG(LOG_LVL_ERROR, "get log savePath error");
            return false;
        }
        m_raspEngine->saveOriginLog(event, m_logSavePath.c_str());
        return true;
    }
    if (event.match_verdict != 0) {
        return true;
    }
    std::string text = m_raspEngine->getBlackLog(event, 1);
    WL_LOG(LOG_LVL_INFO, "BlackLog : %s", text.c_str());
    whitelist_upload_data(text.c_str(), WL_REPORT_RASP_ALARM);
    return true;
}

bool RaspEngine::dealAlarmEvent(std::string text) {
    if (text.empty()) {
        return false;
    }
    OrvLockGuard engine(&m_engineLock);
    if (m_raspEngine == nullptr) {
        WL_LOG(LOG_LVL_ERROR, "alarm feedback dropped: engine not running");
        return true;
    }
    {
        std::vector<_RASP_EVENTINFO> records;
        m_transformer.judgeAlarmEventType(text, records);
        for (_RASP_EVENTINFO& record : records) {
            m_raspEngine->feedbackAlarm(record);
        }
    }  // the records go before the save
    m_raspEngine->saveModel(m_modelSavePath.c_str());
    return true;
}
