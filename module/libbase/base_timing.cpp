#define WL_LOG_SOURCE "base"

#include "base.h"
#include "base_support.h"
#include "whitelist_upload.h"

void BaseEngine::TimeCount() {
    engine_time_count(WL_LOG_SOURCE, m_baseEngine, &m_engineLock, m_isRunning, m_modelSavePath, WL_REPORT_MODEL,
                      WL_REPORT_LEARN_STATUS);
}
