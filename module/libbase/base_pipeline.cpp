#define WL_LOG_SOURCE "base"

#include "base.h"
#include "base_support.h"
#include "event_queues.h"
#include "wl_clock.h"
#include "wl_log.h"

void BaseEngine::DoWork(_BASE_EVENTINFO& event) { m_baseEngine->processEvent(event); }

void BaseEngine::WorkerRoutine() {
    // The thread's own record; 66,732 bytes, hence the large thread stack.
    _BASE_EVENTINFO event;
    while (m_isRunning.load(std::memory_order_relaxed)) {
        wl_usleep(kEngineWorkerPauseUs);
        {
            OrvLockGuard queue(&g_baseDataLock);
            if (g_baseData.empty()) {
                continue;
            }
            event = g_baseData.front();
            g_baseData.pop_front();
        }
        // Filter with no lock held, so the bus thread never waits on it.
        if (m_transformer.filterBaseEvent(event, m_localIps)) {
            continue;
        }
        OrvLockGuard engine(&m_engineLock);
        DoWork(event);
        isNeedSendReport(event);
    }
}

void BaseEngine::WorkerDelayRoutine() {
    while (m_isRunning.load(std::memory_order_relaxed)) {
        wl_usleep(kEngineWorkerPauseUs);
        // The emptiness test is taken under the lock: an unlocked look at the
        // list would race with the worker's append.
        OrvLockGuard queue(&g_baseDataLock);
        if (g_baseDelayData.empty()) {
            continue;
        }
        unsigned long long now = static_cast<unsigned long long>(static_cast<long long>(wl_time(nullptr)));
        // Stored minus now, unsigned: 0 within the second of delaying, huge once
        // the second has passed. Only a clock set back by 0..10 s holds an entry
        // longer; do not turn this into a ten-second hold.
        unsigned long long diff = g_baseDelayData.front().second - now;
        if (diff <= 10) {
            continue;
        }
        // Past the producer's bound on purpose: a delayed event is never shed.
        g_baseData.push_back(g_baseDelayData.front().first);
        g_baseDelayData.pop_front();
    }
}
