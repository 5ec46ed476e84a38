#include "recorders.h"

#include <algorithm>
#include <deque>
#include <mutex>

#include "cl_ev.h"
#include "vrccl_action.h"
#include "whitelist.h"
#include "whitelist_api.h"
#include "whitelist_upload.h"

namespace recorders {
namespace {
struct Records {
    std::vector<Upload> uploads;
    std::deque<bool> timerScript;
    std::vector<Timer> timers;
    std::vector<std::string> journal;
    bool registerOk = true;
};

std::mutex g_mutex;
Records g_records;

// Runs f on the records under their lock.
template <class F>
auto locked(F f) {
    std::lock_guard<std::mutex> lock(g_mutex);
    return f(g_records);
}
}  // namespace

void reset() {
    locked([](Records& r) { r = Records(); });
}

std::vector<Upload> uploads(int type) {
    std::vector<Upload> out;
    for (const Upload& upload : locked([](Records& r) { return r.uploads; })) {
        if (type == -1 || upload.type == type) out.push_back(upload);
    }
    return out;
}

void scriptTimerStarts(const std::vector<bool>& results) {
    locked([&](Records& r) { r.timerScript.assign(results.begin(), results.end()); });
}

std::vector<Timer> timers() {
    return locked([](Records& r) { return r.timers; });
}

std::vector<std::string> journal() {
    return locked([](Records& r) { return r.journal; });
}

int journalCount(const std::string& entry) {
    std::vector<std::string> all = journal();
    return static_cast<int>(std::count(all.begin(), all.end(), entry));
}

void note(const std::string& entry) {
    locked([&](Records& r) { r.journal.push_back(entry); });
}

void setRegisterInitResult(bool ok) {
    locked([ok](Records& r) { r.registerOk = ok; });
}

bool registerInitResult() {
    return locked([](Records& r) { return r.registerOk; });
}

}  // namespace recorders

extern "C" {

WhitelistContext g_whitelist_context;

int whitelist_upload_data(const char* text, int type) {
    recorders::locked([&](recorders::Records& r) { r.uploads.push_back({text ? text : "", type}); });
    return 0;
}

cl_timer_t cl_timerplus_start(void*, int, unsigned int period_ms, cl_timer_fn callback, void*) {
    recorders::note("timer start");
    return recorders::locked([&](recorders::Records& r) -> cl_timer_t {
        bool ok = r.timerScript.empty() || r.timerScript.front();
        if (!r.timerScript.empty()) r.timerScript.pop_front();
        if (!ok) return nullptr;
        r.timers.push_back({period_ms, callback});
        return reinterpret_cast<cl_timer_t>(r.timers.size());  // distinct, never null
    });
}

int cl_timerplus_close(cl_timer_t timer) {
    recorders::note("timer close " + std::to_string(reinterpret_cast<uintptr_t>(timer)));
    return 0;
}

int vrccl_action_subscribe(int action, int id, int reserved) {
    recorders::note("subscribe " + std::to_string(action) + " " + std::to_string(id) + " " + std::to_string(reserved));
    return 0;
}

void whitelist_base_load_model_data(void) { recorders::note("whitelist_base_load_model_data"); }
void whitelist_rasp_load_model_data(void) { recorders::note("whitelist_rasp_load_model_data"); }
void upload_openport_process(void) { recorders::note("upload_openport_process"); }
int whitelist_base_update_open_process(void) {
    recorders::note("whitelist_base_update_open_process");
    return 0;
}
void whitelist_rasp_update_open_process(void) { recorders::note("whitelist_rasp_update_open_process"); }

}  // extern "C"
