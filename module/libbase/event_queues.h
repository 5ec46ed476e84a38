// The engines' input queues and their locks. Lock order, everywhere:
// an engine's m_engineLock first, then g_baseDataLock / g_raspDataLock or the
// upload lock; a queue lock is never held while taking m_engineLock or
// calling into the model library.
#ifndef WL_EVENT_QUEUES_H
#define WL_EVENT_QUEUES_H

#include <list>
#include <string>
#include <utility>

#include "event_info.h"
#include "orv_sync.h"

// Producers refuse to append once this many entries are queued.
constexpr std::size_t kEventQueueLimit = 100;

// Never destroyed: the engines' threads and the bus thread are not stopped at
// process exit and keep using the queues and their locks.
extern std::list<_BASE_EVENTINFO>& g_baseData;
extern std::list<std::pair<_BASE_EVENTINFO, unsigned long long>>& g_baseDelayData;
extern orv_mutex_t g_baseDataLock;  // guards g_baseData and g_baseDelayData

extern std::list<std::string>& g_raspData;
extern orv_mutex_t g_raspDataLock;

#endif
