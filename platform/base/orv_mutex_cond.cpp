// orv_ mutexes and conditions: pthread objects on the heap behind the handle.
#include <errno.h>
#include <pthread.h>

#include <memory>

#include "orv_sync.h"

namespace {

struct OrvMutex {
    pthread_mutex_t native;
};

struct OrvCond {
    pthread_cond_t native;
};

template <typename T>
T* from(void* const* handle) {
    return handle && *handle ? static_cast<T*>(*handle) : nullptr;
}

// The handle is set only once the pthread object is ready.
template <typename T, typename Init>
int create(void** handle, Init init) {
    if (!handle) return EINVAL;
    auto created = std::make_unique<T>();
    int rc = init(&created->native, nullptr);
    if (rc != 0) return rc;
    *handle = created.release();
    return 0;
}

// The handle is cleared whatever the pthread call says: the memory is gone.
template <typename T, typename Destroy>
int destroy(void** handle, Destroy destroyNative) {
    T* object = from<T>(handle);
    if (!object) return EINVAL;
    std::unique_ptr<T> owned(object);
    *handle = nullptr;
    return destroyNative(&owned->native);
}

}  // namespace

extern "C" int orv_mutex_init(orv_mutex_t* mutex) { return create<OrvMutex>(mutex, pthread_mutex_init); }

extern "C" int orv_mutex_lock(orv_mutex_t* mutex) {
    OrvMutex* m = from<OrvMutex>(mutex);
    return m ? pthread_mutex_lock(&m->native) : EINVAL;
}

extern "C" int orv_mutex_unlock(orv_mutex_t* mutex) {
    OrvMutex* m = from<OrvMutex>(mutex);
    return m ? pthread_mutex_unlock(&m->native) : EINVAL;
}

extern "C" int orv_mutex_destroy(orv_mutex_t* mutex) { return destroy<OrvMutex>(mutex, pthread_mutex_destroy); }

extern "C" int orv_cond_init(orv_cond_t* cond) { return create<OrvCond>(cond, pthread_cond_init); }

extern "C" int orv_cond_wait(orv_cond_t* cond, orv_mutex_t* mutex) {
    OrvCond* c = from<OrvCond>(cond);
    OrvMutex* m = from<OrvMutex>(mutex);
    return c && m ? pthread_cond_wait(&c->native, &m->native) : EINVAL;
}

extern "C" int orv_cond_broadcast(orv_cond_t* cond) {
    OrvCond* c = from<OrvCond>(cond);
    return c ? pthread_cond_broadcast(&c->native) : EINVAL;
}

extern "C" int orv_cond_signal(orv_cond_t* cond) {
    OrvCond* c = from<OrvCond>(cond);
    return c ? pthread_cond_signal(&c->native) : EINVAL;
}

extern "C" int orv_cond_destroy(orv_cond_t* cond) { return destroy<OrvCond>(cond, pthread_cond_destroy); }

extern "C" int orv_atomic32_add_and_fetch(volatile int* value, int delta) {
    return __atomic_add_fetch(value, delta, __ATOMIC_SEQ_CST);
}

extern "C" int orv_atomic32_sub_and_fetch(volatile int* value, int delta) {
    return __atomic_sub_fetch(value, delta, __ATOMIC_SEQ_CST);
}
