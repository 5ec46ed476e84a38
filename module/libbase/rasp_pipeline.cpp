#define WL_LOG_SOURCE "rasp"

#include "base_support.h"
#include "event_queues.h"
#include "rasp.h"
#include "wl_clock.h"
#include "wl_log.h"

void RaspEngine::DoWork(_RASP_EVENTINFO& event) { m_raspEngine->processEvent(event); }

void RaspEngine::WorkerRoutine() {
    while (m_isRunning.load(std::memory_order_relaxed)) {
        wl_usleep(kEngineWorkerPauseUs);
        _RASP_EVENTINFO event;
        std::string text;
        {
            OrvLockGuard queue(&g_raspDataLock);
            if (g_raspData.empty()) {
                continue;
            }
            text.swap(g_raspData.front());
            g_raspData.pop_front();
        }
        // Conversion and filter run unlocked: a bad text costs only this thread.
        m_transformer.initRaspInfo(event);
        // A refused text still goes on with the defaults it was given.
        m_transformer.judgeEventType(text, event);
        if (m_transformer.filterRaspEvent(event, m_localIps)) {
            continue;
        }
        WL_LOG(LOG_LVL_DETAIL, "originLog : %s", text.c_str());
        OrvLockGuard engine(&m_engineLock);
        DoWork(event);
        isNeedSendReport(event);
    }
}
