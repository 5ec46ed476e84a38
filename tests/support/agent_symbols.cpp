#include "agent_symbols.h"

#include <dlfcn.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace agent_symbols {
namespace {

struct State {
    std::mutex mutex;
    std::condition_variable changed;
    HeaderScript header;
    int header_calls = 0;
    int upload_result = 0;
    std::chrono::milliseconds upload_delay{0};
    std::vector<Upload> uploads;
    int in_flight = 0;
    int max_in_flight = 0;
    int add_file_result = 0;
    std::vector<UploadedFile> files;
};

State& state() {
    static State instance;
    return instance;
}

unsigned char* ms_conf() { return static_cast<unsigned char*>(dlsym(RTLD_DEFAULT, "g_ms_conf")); }

}  // namespace

void reset() {
    State& s = state();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.header = HeaderScript();
        s.header_calls = 0;
        s.upload_result = 0;
        s.upload_delay = std::chrono::milliseconds(0);
        s.uploads.clear();
        s.in_flight = 0;
        s.max_in_flight = 0;
        s.add_file_result = 0;
        s.files.clear();
    }
    set_module_switch(0, 0);
}

bool set_module_switch(uint16_t switching_on, uint16_t white_list_on) {
    unsigned char* conf = ms_conf();
    if (conf == nullptr) return false;
    std::memcpy(conf + 12, &switching_on, sizeof switching_on);
    std::memcpy(conf + 32, &white_list_on, sizeof white_list_on);
    return true;
}

void set_header(const HeaderScript& script) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().header = script;
}

int header_calls() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().header_calls;
}

int fill_header(log_ctm_header* header) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    ++s.header_calls;
    if (s.header.result != 0) return s.header.result;
    // The agent owns the texts behind the pointers; here the script does, and
    // it outlives the upload that reads them.
    header->seq = s.header.seq;
    std::memset(header->send_time, 0, sizeof header->send_time);
    std::strncpy(header->send_time, s.header.send_time.c_str(), sizeof header->send_time - 1);
    header->host_uuid = s.header.host_uuid.c_str();
    header->host_ip = s.header.host_ip.c_str();
    header->ip_list = s.header.ip_list.c_str();
    return 0;
}

void set_upload_result(int result) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().upload_result = result;
}

void set_upload_delay(std::chrono::milliseconds delay) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().upload_delay = delay;
}

std::vector<Upload> uploads() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().uploads;
}

int max_concurrent_uploads() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().max_in_flight;
}

bool waitForUpload(const std::function<bool(const Upload&)>& predicate, std::chrono::milliseconds timeout) {
    State& s = state();
    std::unique_lock<std::mutex> lock(s.mutex);
    return s.changed.wait_for(lock, timeout, [&] {
        for (const auto& upload : s.uploads) {
            if (predicate(upload)) return true;
        }
        return false;
    });
}

int record_upload(int channel, const char* text, int length, int mode) {
    State& s = state();
    std::chrono::milliseconds delay;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        ++s.in_flight;
        if (s.in_flight > s.max_in_flight) s.max_in_flight = s.in_flight;
        delay = s.upload_delay;
    }
    if (delay.count() > 0) std::this_thread::sleep_for(delay);
    int result;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        --s.in_flight;
        s.uploads.push_back({channel, text != nullptr ? std::string(text) : std::string(), length, mode});
        result = s.upload_result;
    }
    s.changed.notify_all();
    return result;
}

void set_add_upload_file_result(int result) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().add_file_result = result;
}

std::vector<UploadedFile> uploaded_files() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().files;
}

}  // namespace agent_symbols

using agent_symbols::state;

extern "C" __attribute__((visibility("default"))) int _add_upload_file(int kind, const char* path) {
    auto& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.files.push_back({kind, path != nullptr ? std::string(path) : std::string()});
    return s.add_file_result;
}
