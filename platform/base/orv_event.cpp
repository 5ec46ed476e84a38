// orv_ events: a flag under a mutex with a condition, manual or auto reset.
#include <errno.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "orv_sync.h"

namespace {

struct OrvEvent {
    std::mutex lock;
    std::condition_variable changed;
    bool signalled = false;
    bool manualReset = true;
};

OrvEvent* from(orv_event_t event) { return static_cast<OrvEvent*>(event); }

}  // namespace

extern "C" int orv_event_init(orv_event_t* event, int initial_state, int manual_reset) {
    if (!event) return EINVAL;
    auto created = std::make_unique<OrvEvent>();
    created->signalled = initial_state != 0;
    created->manualReset = manual_reset != 0;
    *event = created.release();
    return 0;
}

extern "C" int orv_event_set(orv_event_t event) {
    OrvEvent* e = from(event);
    if (!e) return EINVAL;
    {
        std::lock_guard<std::mutex> guard(e->lock);
        e->signalled = true;
    }
    // An auto-reset event releases one waiter; a manual one releases all.
    if (e->manualReset) {
        e->changed.notify_all();
    } else {
        e->changed.notify_one();
    }
    return 0;
}

extern "C" int orv_event_reset(orv_event_t event) {
    OrvEvent* e = from(event);
    if (!e) return EINVAL;
    std::lock_guard<std::mutex> guard(e->lock);
    e->signalled = false;
    return 0;
}

extern "C" int orv_event_timedwait(orv_event_t event, int timeout_ms, int flags) {
    OrvEvent* e = from(event);
    if (!e) return EINVAL;
    std::unique_lock<std::mutex> guard(e->lock);
    auto isSet = [e] { return e->signalled; };
    if (timeout_ms < 0) {
        e->changed.wait(guard, isSet);
    } else if (!e->changed.wait_for(guard, std::chrono::milliseconds(timeout_ms), isSet)) {
        return ETIMEDOUT;
    }
    if (!e->manualReset) e->signalled = false;
    return 0;
}

extern "C" int orv_event_destroy(orv_event_t event) {
    OrvEvent* e = from(event);
    if (!e) return EINVAL;
    std::unique_ptr<OrvEvent> owned(e);
    return 0;
}
