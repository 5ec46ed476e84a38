// orv_ threads: pthreads with an optional stack size.
#include <errno.h>
#include <limits.h>
#include <pthread.h>

#include "orv_sync.h"

namespace {

// Frees the attribute object on every path out.
class ThreadAttr {
public:
    ThreadAttr() : m_rc(pthread_attr_init(&m_attr)) {}
    ~ThreadAttr() {
        if (m_rc == 0) pthread_attr_destroy(&m_attr);
    }
    ThreadAttr(const ThreadAttr&) = delete;
    ThreadAttr& operator=(const ThreadAttr&) = delete;
    int status() const { return m_rc; }
    pthread_attr_t* get() { return &m_attr; }

private:
    pthread_attr_t m_attr;
    int m_rc;
};

}  // namespace

extern "C" int orv_thread_start(orv_thread_t* thread, orv_thread_fn fn, void* arg, size_t stack_size) {
    if (!thread || !fn) return EINVAL;
    ThreadAttr attr;
    if (attr.status() != 0) return attr.status();
    if (stack_size > 0) {
        if (stack_size < static_cast<size_t>(PTHREAD_STACK_MIN)) stack_size = static_cast<size_t>(PTHREAD_STACK_MIN);
        int rc = pthread_attr_setstacksize(attr.get(), stack_size);
        if (rc != 0) return rc;
    }
    pthread_t id;
    int rc = pthread_create(&id, attr.get(), fn, arg);
    if (rc != 0) return rc;
    *thread = static_cast<orv_thread_t>(id);
    return 0;
}

extern "C" int orv_thread_join(orv_thread_t thread) { return pthread_join(static_cast<pthread_t>(thread), nullptr); }

extern "C" void orv_thread_exit(void* result) { pthread_exit(result); }
