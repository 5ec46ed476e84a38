#include "bus_test_support.h"

#include "whitelist.h"

// The host area, which owns this event, isn't linked into the bus tests.
extern "C" {
orv_event_t g_vr_event = nullptr;
}

void QueueReset::clear() {
    orv_mutex_lock(&g_baseDataLock);
    g_baseData.clear();
    orv_mutex_unlock(&g_baseDataLock);
    orv_mutex_lock(&g_raspDataLock);
    g_raspData.clear();
    orv_mutex_unlock(&g_raspDataLock);
}

std::vector<_BASE_EVENTINFO> baseRecords() {
    orv_mutex_lock(&g_baseDataLock);
    std::vector<_BASE_EVENTINFO> records(g_baseData.begin(), g_baseData.end());
    orv_mutex_unlock(&g_baseDataLock);
    return records;
}

std::vector<std::string> raspTexts() {
    orv_mutex_lock(&g_raspDataLock);
    std::vector<std::string> texts(g_raspData.begin(), g_raspData.end());
    orv_mutex_unlock(&g_raspDataLock);
    return texts;
}
