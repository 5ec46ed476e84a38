#define WL_LOG_SOURCE "rasp"

#include "base_support.h"
#include "rasp.h"
#include "whitelist_upload.h"

void RaspEngine::TimeCount() {
    engine_time_count(WL_LOG_SOURCE, m_raspEngine, &m_engineLock, m_isRunning, m_modelSavePath, WL_REPORT_RASP_MODEL,
                      WL_REPORT_RASP_LEARN_STATUS);
}
