#include "recorders.h"

#include <condition_variable>
#include <deque>
#include <mutex>

#include "cl_ev.h"
#include "vrccl_action.h"
#include "whitelist.h"
#include "whitelist_api.h"
#include "whitelist_upload.h"

namespace recorders {
namespace {
struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Upload> uploads;
    std::deque<bool> timerScript;
    std::vector<Timer> timers;
    int timerStarts = 0;
    int timerCloses = 0;
    unsigned long nextHandle = 0x1000;
    std::vector<Subscribe> subscribes;
    bool registerOk = true;
    int registerInits = 0;
    int registerUninits = 0;
    std::vector<std::string> modelCalls;
};

State& state() {
    static State s;
    return s;
}

void model_call(const char* name) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().modelCalls.push_back(name);
}
}  // namespace

void reset() {
    std::lock_guard<std::mutex> lock(state().mutex);
    State& s = state();
    s.uploads.clear();
    s.timerScript.clear();
    s.timers.clear();
    s.timerStarts = 0;
    s.timerCloses = 0;
    s.subscribes.clear();
    s.registerOk = true;
    s.registerInits = 0;
    s.registerUninits = 0;
    s.modelCalls.clear();
}

std::vector<Upload> uploads() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().uploads;
}

std::vector<Upload> uploadsOfType(int type) {
    std::vector<Upload> out;
    for (const Upload& upload : uploads()) {
        if (upload.type == type) {
            out.push_back(upload);
        }
    }
    return out;
}

bool waitForUploads(int type, int n, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(state().mutex);
    return state().changed.wait_for(lock, timeout, [&] {
        int found = 0;
        for (const Upload& upload : state().uploads) {
            found += upload.type == type ? 1 : 0;
        }
        return found >= n;
    });
}

void scriptTimerStarts(const std::vector<bool>& results) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().timerScript.assign(results.begin(), results.end());
}

std::vector<Timer> timers() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().timers;
}

int timerStartCalls() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().timerStarts;
}

int timerCloseCalls() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().timerCloses;
}

std::vector<Subscribe> subscribes() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().subscribes;
}

void setRegisterInitResult(bool ok) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().registerOk = ok;
}

int registerInitCalls() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().registerInits;
}

int registerUninitCalls() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().registerUninits;
}

std::vector<std::string> modelCalls() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().modelCalls;
}

bool register_init_called() {
    std::lock_guard<std::mutex> lock(state().mutex);
    ++state().registerInits;
    return state().registerOk;
}

void register_uninit_called() {
    std::lock_guard<std::mutex> lock(state().mutex);
    ++state().registerUninits;
}

}  // namespace recorders

using recorders::state;

extern "C" {

WhitelistContext g_whitelist_context;

int whitelist_upload_data(const char* text, int type) {
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        state().uploads.push_back({text ? text : "", type, std::this_thread::get_id()});
    }
    state().changed.notify_all();
    return 0;
}

cl_timer_t cl_timerplus_start(void* loop, int flags, unsigned int period_ms, cl_timer_fn callback, void* reserved) {
    std::lock_guard<std::mutex> lock(state().mutex);
    ++state().timerStarts;
    bool ok = true;
    if (!state().timerScript.empty()) {
        ok = state().timerScript.front();
        state().timerScript.pop_front();
    }
    if (!ok) {
        return nullptr;
    }
    void* handle = reinterpret_cast<void*>(state().nextHandle++);
    state().timers.push_back({handle, period_ms, callback, false});
    return handle;
}

int cl_timerplus_close(cl_timer_t timer) {
    std::lock_guard<std::mutex> lock(state().mutex);
    ++state().timerCloses;
    for (recorders::Timer& t : state().timers) {
        if (t.handle == timer) {
            t.closed = true;
        }
    }
    return 0;
}

int vrccl_action_subscribe(int action, int id, int reserved) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().subscribes.push_back({action, id, reserved});
    return 0;
}

void whitelist_base_load_model_data(void) { recorders::model_call("whitelist_base_load_model_data"); }
void whitelist_rasp_load_model_data(void) { recorders::model_call("whitelist_rasp_load_model_data"); }
void upload_openport_process(void) { recorders::model_call("upload_openport_process"); }
int whitelist_base_update_open_process(void) {
    recorders::model_call("whitelist_base_update_open_process");
    return 0;
}
void whitelist_rasp_update_open_process(void) { recorders::model_call("whitelist_rasp_update_open_process"); }

}  // extern "C"
