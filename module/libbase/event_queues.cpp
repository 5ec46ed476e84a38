#include "event_queues.h"

std::list<_BASE_EVENTINFO> g_baseData;
std::list<std::pair<_BASE_EVENTINFO, unsigned long long>> g_baseDelayData;
orv_mutex_t g_baseDataLock = nullptr;

std::list<std::string> g_raspData;
orv_mutex_t g_raspDataLock = nullptr;

namespace {
// The locks exist before any thread of the module does.
struct QueueLocks {
    QueueLocks() {
        orv_mutex_init(&g_baseDataLock);
        orv_mutex_init(&g_raspDataLock);
    }
    ~QueueLocks() {
        orv_mutex_destroy(&g_baseDataLock);
        orv_mutex_destroy(&g_raspDataLock);
    }
} g_queueLocks;
}  // namespace
