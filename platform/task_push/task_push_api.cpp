// The C face of the task channel.
// The public header comes first so that its functions are exported.
#pragma GCC visibility push(default)
#include "task_push.h"
#pragma GCC visibility pop

#include <string>

#include "handler_registry.h"

#include "dirutils.h"

using taskpush::HandlerRegistry;

extern "C" {

task_handle_t push_task_reg_handler(const char* name, task_push_fn fn, int flags) {
    if (!name || !*name || !fn) return nullptr;
    return HandlerRegistry::instance().add(name, fn);
}

int push_task_unreg_handler(const char* name) {
    if (!name) return -1;
    return HandlerRegistry::instance().remove(name) ? 0 : -1;
}

int task_loop_once(task_handle_t handle) {
    if (!handle) return -1;
    return HandlerRegistry::instance().runPending(static_cast<taskpush::Handler*>(handle));
}

int push_task_submit(const char* name, const char* msg, unsigned int len, unsigned int* result, volatile int* done) {
    if (!name || (!msg && len > 0)) return -1;
    std::string text = msg ? std::string(msg, len) : std::string();
    return HandlerRegistry::instance().submit(name, std::move(text), result, done) ? 0 : -1;
}

const char* push_task_socket_path(void) {
    // Per thread, so that concurrent callers each keep a stable text.
    thread_local char path[4096];
    if (dirutils_path_transform("@/../var/run/task_push.sock", path, sizeof(path)) != 0) path[0] = '\0';
    return path;
}

}  // extern "C"
