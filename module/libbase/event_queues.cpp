#include "event_queues.h"

std::list<_BASE_EVENTINFO>& g_baseData = *new std::list<_BASE_EVENTINFO>;
std::list<std::pair<_BASE_EVENTINFO, unsigned long long>>& g_baseDelayData =
    *new std::list<std::pair<_BASE_EVENTINFO, unsigned long long>>;
orv_mutex_t g_baseDataLock = nullptr;

std::list<std::string>& g_raspData = *new std::list<std::string>;
orv_mutex_t g_raspDataLock = nullptr;

namespace {
// The locks exist before any thread of the module does, and are never
// destroyed (see the header).
struct QueueLocks {
    QueueLocks() {
        orv_mutex_init(&g_baseDataLock);
        orv_mutex_init(&g_raspDataLock);
    }
} g_queueLocks;
}  // namespace
