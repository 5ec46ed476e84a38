// The agent process's run-time symbols, as a test executable provides them:
// g_ms_conf, _upload2mgr, get_log_ctm_header_util_v2 and _add_upload_file.
// Each records its calls and returns a scripted result. Link the object
// library wl_agent_symbols; the symbols are then found by dlsym in the
// executable. wl_agent_symbols_core has only _add_upload_file and the
// recorders, for tests that bring the other three later from a library.
#ifndef WL_TEST_AGENT_SYMBOLS_H
#define WL_TEST_AGENT_SYMBOLS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host_state_utils.h"

extern "C" {
int get_log_ctm_header_util_v2(log_ctm_header* header);
int _upload2mgr(int channel, const char* text, int length, int mode);
int _add_upload_file(int kind, const char* path);
}

namespace agent_symbols {

struct Upload {
    int channel;
    std::string text;
    int length;
    int mode;
};

struct UploadedFile {
    int kind;
    std::string path;
};

// What get_log_ctm_header_util_v2 fills in and returns.
struct HeaderScript {
    unsigned long long seq = 1;
    std::string send_time = "2026-01-01 00:00:00";
    std::string host_uuid = "uuid-test";
    std::string host_ip = "10.0.0.1";
    std::string ip_list = "10.0.0.1,192.168.1.1";
    int result = 0;
};

// Back to the defaults: no records, results 0, g_ms_conf zeroed (if present).
void reset();

// Sets the 16-bit words at bytes 12 (switching on) and 32 (white list on) of
// g_ms_conf, found by dlsym; false when the process has no g_ms_conf.
bool set_module_switch(uint16_t switching_on, uint16_t white_list_on);

void set_header(const HeaderScript& script);
int header_calls();
// The body of get_log_ctm_header_util_v2, for copies of that symbol that
// appear later (a library opened mid-test).
int fill_header(log_ctm_header* header);

// The body of _upload2mgr, likewise.
int record_upload(int channel, const char* text, int length, int mode);

void set_upload_result(int result);
// Each upload then takes this long, so that overlapping calls would show.
void set_upload_delay(std::chrono::milliseconds delay);
std::vector<Upload> uploads();
// The most uploads ever seen in progress at once.
int max_concurrent_uploads();
bool waitForUpload(const std::function<bool(const Upload&)>& predicate,
                   std::chrono::milliseconds timeout = std::chrono::seconds(5));

void set_add_upload_file_result(int result);
std::vector<UploadedFile> uploaded_files();

}  // namespace agent_symbols

#endif
