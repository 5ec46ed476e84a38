// The agent's closed libraries as the host calls them.
#include <dlfcn.h>

#include "asset_collection.h"
#include "cl_ev.h"
#include "host_doubles.h"
#include "orv_log.h"
#include "orv_sync.h"
#include "vrccl_action.h"

using namespace host_doubles;

namespace host_doubles {
void start_thread(void* (*fn)(void*), void* arg);

namespace {
int g_handles[3];
}  // namespace

void* task_handle() { return &g_handles[0]; }
void* ipc_handle() { return &g_handles[1]; }
void* addr_handle() { return &g_handles[2]; }
}  // namespace host_doubles

namespace {

// Records a call that always succeeds.
int scripted(const std::string& call) { return record(call), 0; }

std::string args(const char* name, const std::vector<std::string>& values) {
    std::string out = std::string(name) + "(";
    for (const auto& value : values) out += (&value == &values.front() ? "" : ",") + value;
    return out + ")";
}

std::string checked(const char* name, void* handle, void* expected) {
    return handle == expected ? name : std::string(name) + "(bad handle)";
}

}  // namespace

extern "C" {

int cl_ev_create_isolated_thread(unsigned long* thread_id, int, cl_ev_thread_fn fn, void* arg) {
    if (state().run_thread) start_thread(fn, arg);
    *thread_id = 1;
    return scripted("cl_ev_create_isolated_thread");
}

int cl_ev_loop_nowait(int flags) { return scripted(args("cl_ev_loop_nowait", {std::to_string(flags)})); }
int cl_event_loop_once(void) { return scripted("cl_event_loop_once"); }
int push_task_unreg_handler(const char* name) { return scripted(args("push_task_unreg_handler", {name})); }
void unreg_ipc_handler(void) { record("unreg_ipc_handler"); }
void kem_ipc_destroy(kem_ipc_t ipc) { record(checked("kem_ipc_destroy", ipc, ipc_handle())); }
void kem_addr_destroy(kem_addr_t addr) { record(checked("kem_addr_destroy", addr, addr_handle())); }
void vrccl_action_free(void) { record("vrccl_action_free"); }
int autolog_init(const char*, int flags) { return scripted(args("autolog_init", {std::to_string(flags)})); }
void autolog_deinit(void) { record("autolog_deinit"); }

task_handle_t push_task_reg_handler(const char* name, task_push_fn fn, int) {
    if (host_doubles::scripted(args("push_task_reg_handler", {name}), "push_task_reg_handler")) return nullptr;
    std::lock_guard<std::mutex> lock(mutex());
    state().task_fn = fn;
    return task_handle();
}

// Runs the queued messages through the registered function on the caller's
// thread, as the task library does.
int task_loop_once(task_handle_t handle) {
    record(checked("task_loop_once", handle, task_handle()));
    for (int ran = 0;; ++ran) {
        std::unique_lock<std::mutex> lock(mutex());
        if (state().tasks.empty() || state().task_fn == nullptr) return ran;
        std::string msg = state().tasks.front();
        state().tasks.pop_front();
        task_push_fn fn = state().task_fn;
        lock.unlock();
        unsigned int result = fn(0, 0, msg.c_str(), static_cast<unsigned int>(msg.size()));
        lock.lock();
        state().task_results.push_back(result);
    }
}

int reg_ipc_handler(const char* name, ipc_handler_table* table) {
    state().ipc_table = table;
    return host_doubles::scripted(args("reg_ipc_handler", {name}), "reg_ipc_handler");
}

kem_ipc_t kem_ipc_create(const char* name, int flags) {
    std::string call = args("kem_ipc_create", {name, std::to_string(flags)});
    return host_doubles::scripted(call, "kem_ipc_create") ? nullptr : ipc_handle();
}

kem_addr_t kem_addr_create(const char* name, int kind, int flags) {
    std::string call = args("kem_addr_create", {name, std::to_string(kind), std::to_string(flags)});
    return host_doubles::scripted(call, "kem_addr_create") ? nullptr : addr_handle();
}

int kem_ipc_msg_recv(kem_ipc_t ipc, kem_ipc_msg_fn fn, void*) {
    state().msg_fn = fn;
    return host_doubles::scripted(checked("kem_ipc_msg_recv", ipc, ipc_handle()), "kem_ipc_msg_recv");
}

int kem_ipc_make_request(kem_ipc_t, kem_addr_t, unsigned int cmd, const void* data, unsigned int size,
                         kem_ipc_reply_fn reply, void*, int wait) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    state().requests.push_back({cmd, std::vector<unsigned char>(bytes, bytes + size), reply, wait});
    return scripted(args("kem_ipc_make_request", {std::to_string(cmd)}));
}

int kem_ipc_response(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, int flags, const void* data,
                     unsigned int size) {
    return scripted(
        args("kem_ipc_response", {std::to_string(ctx1), std::to_string(ctx2), std::to_string(cmd),
                                  std::to_string(flags), std::string(static_cast<const char*>(data), size)}));
}

int get_asset_info_state_v2(int kind, int) {
    scripted(args("get_asset_info_state_v2", {std::to_string(kind)}));
    return state().asset_state(kind, state().asset_calls[kind]++);
}

int vrccl_action_init(void) {
    scripted("vrccl_action_init");
    auto& results = state().vrccl_init_results;
    if (results.empty()) return state().vrccl_init_default;
    int result = results.front();
    results.pop_front();
    return result;
}

// Events never block: the main loop's 2-second wait answers at once.
int orv_event_init(orv_event_t* event, int initial_state, int manual_reset) {
    std::string call = args("orv_event_init", {std::to_string(initial_state), std::to_string(manual_reset)});
    if (int result = host_doubles::scripted(call, "orv_event_init")) return result;
    auto flag = std::make_unique<bool>(initial_state != 0);
    *event = flag.get();
    state().events[flag.get()] = std::move(flag);
    return 0;
}

int orv_event_set(orv_event_t event) { return state().events.count(event) ? *state().events[event] = true, 0 : -1; }

int orv_event_reset(orv_event_t event) {
    record("orv_event_reset");
    return state().events.count(event) ? *state().events[event] = false, 0 : -1;
}

int orv_event_timedwait(orv_event_t event, int timeout_ms, int) {
    record(args("orv_event_timedwait", {std::to_string(timeout_ms)}));
    return state().events.count(event) && *state().events[event] ? 0 : 1;
}

// The real mutex, unless the test makes the call fail (the upload lock's step).
int orv_mutex_init(orv_mutex_t* mutex) {
    if (int result = host_doubles::scripted("orv_mutex_init", "orv_mutex_init")) return result;
    static const auto real = reinterpret_cast<int (*)(orv_mutex_t*)>(dlsym(RTLD_NEXT, "orv_mutex_init"));
    return real(mutex);
}

int orv_event_destroy(orv_event_t event) {
    record("orv_event_destroy");
    return state().events.erase(event) == 1 ? 0 : -1;
}

}  // extern "C"
