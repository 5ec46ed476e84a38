#include "base_support.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <vector>

#include "dirutils.h"
#include "orv_dll.h"
#include "whitelist_upload.h"
#include "wl_clock.h"
#include "wl_log.h"

namespace {
bool engine_status_reportable(const std::string& status) {
    return status != WL_RESULT_ERROR && status != WL_RESULT_EMPTY;
}
}  // namespace

std::string engine_resolve_path(const char* pattern) {
    char buffer[kEnginePathSize] = {0};
    dirutils_path_transform(pattern, buffer, sizeof(buffer));
    return buffer;
}

void engine_start_thread(orv_thread_t* thread, orv_thread_fn fn) {
    orv_thread_start(thread, fn, nullptr, kEngineThreadStackSize);
}

void engine_set_thread_name(const char* name) { prctl(PR_SET_NAME, name, 0, 0, 0); }

void engine_collect_local_ips(const char* source, std::set<std::string>& ips) {
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        WL_LOG_AS(source, LOG_LVL_ERROR, "getifaddrs failed");
        return;
    }
    for (struct ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) {
            continue;
        }
        char text[INET_ADDRSTRLEN] = {0};
        const struct sockaddr_in* address = reinterpret_cast<const struct sockaddr_in*>(entry->ifa_addr);
        if (inet_ntop(AF_INET, &address->sin_addr, text, sizeof(text)) == nullptr) {
            continue;
        }
        WL_LOG_AS(source, LOG_LVL_INFO, "get local ip : %s", text);
        ips.insert(text);
    }
    freeifaddrs(list);
}

// The start steps after the factory, the same for both engines: settings (when
// the file exists), the model directory and its load, the origin-log
// directory. False once a step failed and was logged; the caller then stops
// the engine. The directory must exist already on a second run of the agent,
// so an existing one counts as made.
template <class Library>
bool engine_prepare_library(const char* source, Library* library, const char* configPattern, const char* modelPattern,
                            const char* originLogPattern, std::string& modelSavePath, std::string& logSavePath) {
    std::string config = engine_resolve_path(configPattern);
    WL_LOG_AS(source, LOG_LVL_INFO, "config file: %s", config.c_str());
    if (orv_path_is_exist_u(config.c_str())) {
        if (library->setConfig(config.c_str()) == -1) {
            WL_LOG_AS(source, LOG_LVL_ERROR, "set config error");
            return false;
        }
    } else {
        WL_LOG_AS(source, LOG_LVL_ERROR, "config not exists");
    }

    std::string model = engine_resolve_path(modelPattern);
    WL_LOG_AS(source, LOG_LVL_INFO, "Model file: %s", model.c_str());
    if (dirutils_mkdir(model.c_str(), 0750) != 0) {
        WL_LOG_AS(source, LOG_LVL_ERROR, "load model path error");
        return false;
    }
    modelSavePath = model;
    if (library->loadModel(model.c_str()) == -1) {
        WL_LOG_AS(source, LOG_LVL_ERROR, "Empty model loaded failed!");
        return false;
    }
    WL_LOG_AS(source, LOG_LVL_INFO, "Load empty model success.");

    std::string originLog = engine_resolve_path(originLogPattern);
    WL_LOG_AS(source, LOG_LVL_INFO, "Originl log file: %s", originLog.c_str());
    if (dirutils_mkdir(originLog.c_str(), 0750) != 0) {
        WL_LOG_AS(source, LOG_LVL_ERROR, "create originLog save path error");
        return false;
    }
    logSavePath = originLog;
    return true;
}

// Countdowns of the timing loop, in seconds, decreased by one pass each.
struct engine_countdown_st {
    static constexpr int kPassSeconds = 3;
    static constexpr int kSave = 120;
    static constexpr int kTick = 60;
    static constexpr int kPublish = 120;
    static constexpr int kReport = 3600;
};

// The timing loop of either engine. The library's time is the count of passes,
// not the wall clock: each tick says 60 whatever the pass really took.
template <class Library>
void engine_time_count(const char* source, Library* library, orv_mutex_t* engineLock, const std::atomic<bool>& running,
                       const std::string& modelSavePath, int modelReport, int statusReport) {
    // Unlocked on purpose: the library must bear this one call beside the worker.
    std::string status = library->getModelStatus("");
    WL_LOG_AS(source, LOG_LVL_INFO, "start engine, model status : %s", status.c_str());
    if (engine_status_reportable(status)) {
        whitelist_upload_data(status.c_str(), statusReport);
    }
    if (modelSavePath.empty()) {
        WL_LOG_AS(source, LOG_LVL_ERROR, "init model Save Path error");
        return;
    }
    int save = engine_countdown_st::kSave;
    int tick = engine_countdown_st::kTick;
    int publish = engine_countdown_st::kPublish;
    int report = engine_countdown_st::kReport;
    while (running.load(std::memory_order_relaxed)) {
        wl_sleep(engine_countdown_st::kPassSeconds);
        save -= engine_countdown_st::kPassSeconds;
        if (save <= 0) {
            OrvLockGuard lock(engineLock);
            library->saveModel(modelSavePath.c_str());
            save = engine_countdown_st::kSave;
        }
        tick -= engine_countdown_st::kPassSeconds;
        if (tick <= 0) {
            OrvLockGuard lock(engineLock);
            library->elapseTime(60, 0);
            tick = engine_countdown_st::kTick;
        }
        publish -= engine_countdown_st::kPassSeconds;
        if (publish <= 0) {
            OrvLockGuard lock(engineLock);
            std::string name = library->getChangedModel();
            if (!name.empty()) {
                std::string data = library->getModelData(name);
                whitelist_upload_data(data.c_str(), modelReport);
            }
            publish = engine_countdown_st::kPublish;
        }
        report -= engine_countdown_st::kPassSeconds;
        if (report <= 0) {
            OrvLockGuard lock(engineLock);
            std::string all = library->getModelStatus("");
            if (engine_status_reportable(all)) {
                whitelist_upload_data(all.c_str(), statusReport);
            }
            std::string data = library->getModelData("");
            if (data != WL_RESULT_EMPTY) {
                whitelist_upload_data(data.c_str(), modelReport);
            }
            report = engine_countdown_st::kReport;
        }
    }
    WL_LOG_AS(source, LOG_LVL_DETAIL, "exit update model timing thread");
}

// Tells the manager where a model stands after a command. Reads nothing back
// into the record and changes nothing in the library. The library pointer is
// read under the lock: a stop clears it while holding that lock.
template <class Library>
int engine_parse_input(const char* source, Library* const& library, orv_mutex_t* engineLock, _USR_INPUT* input,
                       int modelReport, int statusReport) {
    if (input == nullptr) {
        return 0;
    }
    std::string name = input->modelName;
    if (name.empty()) {
        return 0;
    }
    OrvLockGuard lock(engineLock);
    if (library == nullptr) {
        return 0;  // engine stopped: nothing to ask
    }
    if (input->oprType == USR_OPR_QUERY) {
        std::string data = library->getModelData(name);
        whitelist_upload_data(data.c_str(), modelReport);
    }
    std::string status = library->getModelStatus(name);
    if (engine_status_reportable(status)) {
        whitelist_upload_data(status.c_str(), statusReport);
    }
    return 1;
}

template bool engine_prepare_library(const char*, BaseInterface*, const char*, const char*, const char*, std::string&,
                                     std::string&);
template bool engine_prepare_library(const char*, RaspInterface*, const char*, const char*, const char*, std::string&,
                                     std::string&);
template void engine_time_count(const char*, BaseInterface*, orv_mutex_t*, const std::atomic<bool>&, const std::string&,
                                int, int);
template void engine_time_count(const char*, RaspInterface*, orv_mutex_t*, const std::atomic<bool>&, const std::string&,
                                int, int);
template int engine_parse_input(const char*, BaseInterface* const&, orv_mutex_t*, _USR_INPUT*, int, int);
template int engine_parse_input(const char*, RaspInterface* const&, orv_mutex_t*, _USR_INPUT*, int, int);
