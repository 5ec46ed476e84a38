// A scoped orv mutex for the module's own locks.
#ifndef WL_ORV_LOCK_GUARD_H
#define WL_ORV_LOCK_GUARD_H

#include "orv_sync.h"

// Released also when an exception passes.
class OrvLockGuard {
public:
    explicit OrvLockGuard(orv_mutex_t* mutex) : m_mutex(mutex) { orv_mutex_lock(m_mutex); }
    ~OrvLockGuard() { orv_mutex_unlock(m_mutex); }
    OrvLockGuard(const OrvLockGuard&) = delete;
    OrvLockGuard& operator=(const OrvLockGuard&) = delete;

private:
    orv_mutex_t* m_mutex;
};

#endif
