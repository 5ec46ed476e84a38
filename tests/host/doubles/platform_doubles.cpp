// The agent's closed libraries as the host calls them.
#include <dlfcn.h>

#include "asset_collection.h"
#include "cl_ev.h"
#include "doubles_state.h"
#include "orv_log.h"
#include "orv_sync.h"
#include "vrccl_action.h"

using host_doubles::record;
using host_doubles::state;

namespace host_doubles {
namespace {
int g_task_handle_object;
int g_ipc_handle_object;
int g_addr_handle_object;
}  // namespace

void* task_handle() { return &g_task_handle_object; }
void* ipc_handle() { return &g_ipc_handle_object; }
void* addr_handle() { return &g_addr_handle_object; }
}  // namespace host_doubles

extern "C" {

int cl_ev_create_isolated_thread(unsigned long* thread_id, int flags, cl_ev_thread_fn fn, void* arg) {
    record("cl_ev_create_isolated_thread");
    std::lock_guard<std::mutex> lock(state().mutex);
    if (state().script.thread_create_result != 0) return state().script.thread_create_result;
    if (state().script.run_thread) state().threads.emplace_back(fn, arg);
    if (thread_id != nullptr) *thread_id = 1;
    return 0;
}

int cl_ev_loop_nowait(int flags) {
    record("cl_ev_loop_nowait(" + std::to_string(flags) + ")");
    return 0;
}

int cl_event_loop_once(void) {
    record("cl_event_loop_once");
    return 0;
}

task_handle_t push_task_reg_handler(const char* name, task_push_fn fn, int flags) {
    record(std::string("push_task_reg_handler(") + name + ")");
    std::lock_guard<std::mutex> lock(state().mutex);
    if (state().script.task_reg_fails) return nullptr;
    state().task_fn = fn;
    return host_doubles::task_handle();
}

int push_task_unreg_handler(const char* name) {
    record(std::string("push_task_unreg_handler(") + name + ")");
    return 0;
}

// Runs the queued messages through the registered function, as the task
// library does on the caller's thread.
int task_loop_once(task_handle_t handle) {
    record(handle == host_doubles::task_handle() ? "task_loop_once" : "task_loop_once(bad handle)");
    std::function<void()> hook;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        hook = state().script.on_task_loop;
    }
    if (hook) hook();
    int ran = 0;
    for (;;) {
        std::string msg;
        task_push_fn fn;
        {
            std::lock_guard<std::mutex> lock(state().mutex);
            if (state().tasks.empty() || state().task_fn == nullptr) break;
            msg = state().tasks.front();
            state().tasks.pop_front();
            fn = state().task_fn;
        }
        unsigned int result = fn(0, 0, msg.c_str(), static_cast<unsigned int>(msg.size()));
        std::lock_guard<std::mutex> lock(state().mutex);
        state().task_results.push_back(result);
        ++ran;
    }
    return ran;
}

int reg_ipc_handler(const char* name, ipc_handler_table* table) {
    record(std::string("reg_ipc_handler(") + name + ")");
    std::lock_guard<std::mutex> lock(state().mutex);
    state().ipc_table = table;
    return state().script.reg_ipc_handler_result;
}

void unreg_ipc_handler(void) { record("unreg_ipc_handler"); }

kem_ipc_t kem_ipc_create(const char* name, int flags) {
    record(std::string("kem_ipc_create(") + name + "," + std::to_string(flags) + ")");
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().script.ipc_create_fails ? nullptr : host_doubles::ipc_handle();
}

void kem_ipc_destroy(kem_ipc_t ipc) {
    record(ipc == host_doubles::ipc_handle() ? "kem_ipc_destroy" : "kem_ipc_destroy(bad handle)");
}

kem_addr_t kem_addr_create(const char* name, int kind, int flags) {
    record(std::string("kem_addr_create(") + name + "," + std::to_string(kind) + "," + std::to_string(flags) + ")");
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().script.addr_create_fails ? nullptr : host_doubles::addr_handle();
}

void kem_addr_destroy(kem_addr_t addr) {
    record(addr == host_doubles::addr_handle() ? "kem_addr_destroy" : "kem_addr_destroy(bad handle)");
}

int kem_ipc_msg_recv(kem_ipc_t ipc, kem_ipc_msg_fn fn, void* user) {
    record(ipc == host_doubles::ipc_handle() ? "kem_ipc_msg_recv" : "kem_ipc_msg_recv(bad handle)");
    std::lock_guard<std::mutex> lock(state().mutex);
    state().msg_fn = fn;
    state().msg_user = user;
    return state().script.msg_recv_result;
}

int kem_ipc_make_request(kem_ipc_t ipc, kem_addr_t addr, unsigned int cmd, const void* data, unsigned int size,
                         kem_ipc_reply_fn reply, void* reserved, int wait) {
    record("kem_ipc_make_request(" + std::to_string(cmd) + ")");
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::lock_guard<std::mutex> lock(state().mutex);
    state().requests.push_back({ipc, addr, cmd, std::vector<unsigned char>(bytes, bytes + size), reply, wait});
    return 0;
}

int kem_ipc_response(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, int flags, const void* data,
                     unsigned int size) {
    record("kem_ipc_response");
    std::lock_guard<std::mutex> lock(state().mutex);
    state().responses.push_back(
        {ctx1, ctx2, cmd, flags, std::string(static_cast<const char*>(data), size), size});
    return 0;
}

int get_asset_info_state_v2(int kind, int flags) {
    record("get_asset_info_state_v2(" + std::to_string(kind) + ")");
    std::function<int(int, int)> asset_state;
    int call;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        asset_state = state().script.asset_state;
        call = state().asset_calls[kind]++;
    }
    return asset_state(kind, call);
}

int vrccl_action_init(void) {
    record("vrccl_action_init");
    std::lock_guard<std::mutex> lock(state().mutex);
    auto& results = state().script.vrccl_init_results;
    if (results.empty()) return state().script.vrccl_init_default;
    int result = results.front();
    results.pop_front();
    return result;
}

void vrccl_action_free(void) { record("vrccl_action_free"); }

int autolog_init(const char* dir, int flags) {
    record("autolog_init(" + std::to_string(flags) + ")");
    return 0;
}

void autolog_deinit(void) { record("autolog_deinit"); }

// Passes through to the base library unless the script says it fails.
int orv_mutex_init(orv_mutex_t* mutex) {
    int scripted;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        scripted = state().script.mutex_init_result;
    }
    if (scripted != 0) return scripted;
    using init_fn = int (*)(orv_mutex_t*);
    static const auto real = reinterpret_cast<init_fn>(dlsym(RTLD_NEXT, "orv_mutex_init"));
    return real(mutex);
}

// Events signal at once and never block: the 2-second wait of the main loop
// answers immediately.
int orv_event_init(orv_event_t* event, int initial_state, int manual_reset) {
    record("orv_event_init(" + std::to_string(initial_state) + "," + std::to_string(manual_reset) + ")");
    std::lock_guard<std::mutex> lock(state().mutex);
    if (state().script.event_init_result != 0) return state().script.event_init_result;
    auto fake = std::make_unique<host_doubles::FakeEvent>();
    fake->signalled = initial_state != 0;
    *event = fake.get();
    state().events[fake.get()] = std::move(fake);
    return 0;
}

int orv_event_set(orv_event_t event) {
    std::lock_guard<std::mutex> lock(state().mutex);
    auto it = state().events.find(event);
    if (it == state().events.end()) return -1;
    it->second->signalled = true;
    return 0;
}

int orv_event_reset(orv_event_t event) {
    record("orv_event_reset");
    std::lock_guard<std::mutex> lock(state().mutex);
    auto it = state().events.find(event);
    if (it == state().events.end()) return -1;
    it->second->signalled = false;
    return 0;
}

int orv_event_timedwait(orv_event_t event, int timeout_ms, int flags) {
    record("orv_event_timedwait(" + std::to_string(timeout_ms) + ")");
    std::lock_guard<std::mutex> lock(state().mutex);
    auto it = state().events.find(event);
    return it != state().events.end() && it->second->signalled ? 0 : 1;
}

int orv_event_destroy(orv_event_t event) {
    record("orv_event_destroy");
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().events.erase(event) == 1 ? 0 : -1;
}

}  // extern "C"
