#define WL_LOG_SOURCE "whitelist_upload"

#include "whitelist_upload.h"

#include <dlfcn.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "agent_symbol.h"
#include "host_json.h"
#include "host_state_utils.h"
#include "orv_sync.h"
#include "upload2mgr.h"
#include "wl_log.h"

namespace {
orv_mutex_t g_upload_lock = nullptr;
// Filled on first use and read under the upload lock; a failed look-up is
// tried again at the next upload.
get_log_ctm_header_fn g_get_header_slot = nullptr;
upload2mgr_fn g_upload2mgr_slot = nullptr;

constexpr int kNoHeaderSymbol = -100;
constexpr int kBadInput = 2;
constexpr int kEnvelopeFailure = 3;
constexpr int kUploadFailed = -1;

const char* const kReportNames[] = {"model",      "learn_status", "alarm", "rasp_model", "rasp_learn_status",
                                    "rasp_alarm", "open_proc"};

// The lock exists from start-up step 6 on; before it, no other thread of the
// module runs, so an upload then goes unlocked rather than failing.
class UploadLockGuard {
public:
    UploadLockGuard() : m_locked(g_upload_lock != nullptr && orv_mutex_lock(&g_upload_lock) == 0) {}
    ~UploadLockGuard() {
        if (m_locked) orv_mutex_unlock(&g_upload_lock);
    }
    UploadLockGuard(const UploadLockGuard&) = delete;
    UploadLockGuard& operator=(const UploadLockGuard&) = delete;

private:
    bool m_locked;
};

int fetch_header(log_ctm_header* header) {
    get_log_ctm_header_fn get_header = agent_symbol(g_get_header_slot, "get_log_ctm_header_util_v2", [] {
        WL_LOG_AS("agent/include/plugins/host_state_utils", LOG_LVL_ERROR,
                  "load host_state symbol: get_log_ctm_header_util_v2 failed, errno: %d\n", errno);
    });
    if (get_header == nullptr) return kNoHeaderSymbol;
    return get_header(header);
}

bool add_string(cJSON* object, const char* key, const char* text) {
    // The agent's texts may be missing; an empty string keeps the envelope whole.
    cJSON* item = cJSON_CreateString(text != nullptr ? text : "");
    if (item == nullptr) return false;
    cJSON_AddItemToObject(object, key, item);
    return true;
}

bool add_header_keys(cJSON* envelope, const log_ctm_header& header) {
    char send_time[sizeof header.send_time + 1] = {};
    std::memcpy(send_time, header.send_time, sizeof header.send_time);
    char seq_id[32];
    std::snprintf(seq_id, sizeof seq_id, "%llu", static_cast<unsigned long long>(header.seq));
    return add_string(envelope, "send_time", send_time) && add_string(envelope, "host_uuid", header.host_uuid) &&
           add_string(envelope, "host_ip", header.host_ip) && add_string(envelope, "ip_list", header.ip_list) &&
           add_string(envelope, "seq_id", seq_id);
}

// Wraps the payload in the envelope and prints it; a non-zero code on failure.
int format_upload_msg(JsonTree payload, int type, JsonText& out) {
    log_ctm_header header;
    std::memset(&header, 0, sizeof header);
    int ret = fetch_header(&header);
    if (ret != 0) {
        WL_LOG(LOG_LVL_WARN, "%s, ret %d.\n", "get log common header fail", ret);
        return ret;
    }
    JsonTree envelope(cJSON_CreateObject());
    if (!envelope) {
        WL_LOG(LOG_LVL_WARN, "%s failed.\n", "create upload cjson obj fail");
        return kEnvelopeFailure;
    }
    if (!add_header_keys(envelope.get(), header)) return kEnvelopeFailure;
    if (static_cast<unsigned int>(type) > WL_REPORT_OPEN_PROC) {
        WL_LOG(LOG_LVL_ERROR, "error type");
        return kBadInput;
    }
    const char* name = kReportNames[type];
    if (!add_string(envelope.get(), "type", name)) return kEnvelopeFailure;
    cJSON_AddItemToObject(envelope.get(), name, payload.release());

    out.reset(cJSON_PrintUnformatted(envelope.get()));
    if (!out) {
        WL_LOG(LOG_LVL_ERROR, "cjson to str fail");
        return kEnvelopeFailure;
    }
    return 0;
}

int send_to_manager(const char* text, int length) {
    upload2mgr_fn upload = agent_symbol(g_upload2mgr_slot, "_upload2mgr", [] {
        WL_LOG_AS("agent/include/plugins/upload2mgr", LOG_LVL_ERROR,
                  "load upload2mgr _upload2mgr symbol failed, errno: %d\n", errno);
    });
    if (upload == nullptr) return kNoHeaderSymbol;
    return upload(WL_UPLOAD_CHANNEL, text, length, WL_UPLOAD_MODE);
}
}  // namespace

int whitelist_init_upload_lock(void) {
    if (g_upload_lock != nullptr) return 0;
    int ret = orv_mutex_init(&g_upload_lock);
    if (ret != 0) {
        WL_LOG(LOG_LVL_ERROR, "init upload lock fail");
        g_upload_lock = nullptr;
    }
    return ret;
}

void whitelist_uninit_upload_lock(void) {
    if (g_upload_lock == nullptr) return;
    orv_mutex_destroy(&g_upload_lock);
    g_upload_lock = nullptr;
}

int whitelist_upload_data(const char* text, int type) {
    if (text == nullptr) {
        WL_LOG(LOG_LVL_WARN, "The upload data is empty");
        return kBadInput;
    }
    // Held across the upload service too: reports leave one at a time.
    UploadLockGuard lock;
    JsonTree payload(cJSON_Parse(text));
    if (!payload) {
        WL_LOG(LOG_LVL_ERROR, "parse json str fail.");
        return kBadInput;
    }
    JsonText message;
    int ret = format_upload_msg(std::move(payload), type, message);
    if (ret != 0) {
        WL_LOG(LOG_LVL_WARN, "format upload msg fail, ret:%d", ret);
        return ret;
    }
    int length = static_cast<int>(std::strlen(message.get()));
    if (length == 0) {
        WL_LOG(LOG_LVL_WARN, "upload to mgr fail, ret:%d", kBadInput);
        return kBadInput;
    }
    int result = send_to_manager(message.get(), length);
    if (result >= 0) {
        WL_LOG(LOG_LVL_DETAIL, "upload str: %s", message.get());
        return 0;
    }
    // Soft failures of the service are routine and stay at detail level.
    WL_LOG(result <= kNoHeaderSymbol ? LOG_LVL_WARN : LOG_LVL_DETAIL, "upload2mgr failed.[%d]\n", result);
    WL_LOG(LOG_LVL_WARN, "upload to mgr fail, ret:%d", kUploadFailed);
    return kUploadFailed;
}

void* dll_get_addr_ex(void* handle, const char* name) {
    if (name == nullptr || *name == '\0') return nullptr;
    return dlsym(handle != nullptr ? handle : RTLD_DEFAULT, name);
}

void dll_close_ex(void* handle) {
    if (handle != nullptr) dlclose(handle);
}

void* dll_open_ex(void) { return nullptr; }
