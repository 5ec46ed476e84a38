#define WL_LOG_SOURCE "whitelist_impl"

#include <sys/stat.h>

#include <cstdio>

#include "cl_ev.h"
#include "dirutils.h"
#include "dir_walk.h"
#include "whitelist_api.h"
#include "whitelist_impl.h"
#include "wl_log.h"

namespace {
const unsigned int kOpenPortPeriodMs = 14400000;
const unsigned int kCleanLogPeriodMs = 3600000;
const unsigned int kOpenProcessPeriodMs = 1800000;
const char kTimerFailed[] = "start timer check cron task failed.";
const char kOriginLogDir[] = "@/../var/base/originLog/";
const char kRaspOriginLogDir[] = "@/../var/base/raspOriginLog/";
const std::size_t kDumpPathSize = 2048;

// The timer library calls back without a result; the refresh returns one.
void base_open_process_tick() { whitelist_base_update_open_process(); }

void* start_timer(unsigned int period, cl_timer_fn callback) {
    return cl_timerplus_start(nullptr, 0, period, callback, nullptr);
}

void stop_timer(void*& timer) {
    if (timer != nullptr) {
        cl_timerplus_close(timer);
        timer = nullptr;
    }
}

void clean_origin_log_dir(const char* pattern) {
    char path[kDumpPathSize] = {0};
    dirutils_path_transform(pattern, path, sizeof(path));
    check_dump_path(path);
}

}  // namespace

extern "C" {

int whitelist_init_engine(void) {
    int base = whitelist_engine_switch();
    int rasp = whitelist_rasp_switch();
    return base | rasp;
}

int whitelist_engine_switch(void) {
    if (whitelist_base_engine_init() == 0) {
        WL_LOG(LOG_LVL_ERROR, "base engine init fail");
        return WL_TASK_REFUSED;
    }
    whitelist_base_load_model_data();
    init_whitelist_timer(&g_whitelist_context);
    g_whitelist_context.base_engine_on = 1;
    return WL_TASK_OK;
}

int whitelist_rasp_switch(void) {
    if (whitelist_rasp_engine_init() == 0) {
        WL_LOG(LOG_LVL_ERROR, "inner model init fail");
        return WL_TASK_REFUSED;
    }
    whitelist_rasp_load_model_data();
    init_whitelist_rasp_timer(&g_whitelist_context);
    g_whitelist_context.rasp_engine_on = 1;
    return WL_TASK_OK;
}

void init_whitelist_timer(WhitelistContext* context) {
    if (context->timer_openport == nullptr) {
        context->timer_openport = start_timer(kOpenPortPeriodMs, upload_openport_process);
        if (context->timer_openport == nullptr) {
            WL_LOG(LOG_LVL_ERROR, "%s", kTimerFailed);
            return;
        }
    }
    if (context->timer_clean_log == nullptr) {
        context->timer_clean_log = start_timer(kCleanLogPeriodMs, clean_whitelist_ori_log);
        if (context->timer_clean_log == nullptr) {
            WL_LOG(LOG_LVL_ERROR, "%s", kTimerFailed);
            return;
        }
    }
    // Reversed test, kept as the agent has always behaved: nothing else sets
    // this field, so the base 30-minute refresh never runs, and its only call
    // (at the end of the asset wait) is the one the refresh turns away.
    if (context->timer_base_open_process != nullptr) {
        context->timer_base_open_process = start_timer(kOpenProcessPeriodMs, base_open_process_tick);
        if (context->timer_base_open_process == nullptr) {
            WL_LOG(LOG_LVL_ERROR, "%s", kTimerFailed);
            return;
        }
    }
    WL_LOG(LOG_LVL_INFO, "init timer suc.");
}

void init_whitelist_rasp_timer(WhitelistContext* context) {
    if (context->timer_rasp_open_process == nullptr) {
        context->timer_rasp_open_process = start_timer(kOpenProcessPeriodMs, whitelist_rasp_update_open_process);
        if (context->timer_rasp_open_process == nullptr) {
            WL_LOG(LOG_LVL_ERROR, "%s", kTimerFailed);
            return;
        }
    }
    if (context->timer_clean_rasp_log == nullptr) {
        context->timer_clean_rasp_log = start_timer(kCleanLogPeriodMs, clean_whitelist_raspori_log);
        // Tests the base group's clean timer, not the one just started, as the
        // agent always has: a failed base start is reported here, a failed
        // start of this timer goes unnoticed. Kept for identical logs.
        if (context->timer_clean_log == nullptr) {
            WL_LOG(LOG_LVL_ERROR, "%s", kTimerFailed);
            return;
        }
    }
    WL_LOG(LOG_LVL_INFO, "init rasp timer suc.");
}

void uninit_whitelist_timer(WhitelistContext* context) {
    stop_timer(context->timer_openport);
    stop_timer(context->timer_clean_log);
    stop_timer(context->timer_base_open_process);
    WL_LOG(LOG_LVL_INFO, "uninit whitelist timer suc.");
}

void uninit_whitelist_rasp_timer(WhitelistContext* context) {
    stop_timer(context->timer_rasp_open_process);
    stop_timer(context->timer_clean_rasp_log);
    WL_LOG(LOG_LVL_INFO, "uninit rasp timer suc.");
}

void clean_whitelist_ori_log(void) { clean_origin_log_dir(kOriginLogDir); }

void clean_whitelist_raspori_log(void) { clean_origin_log_dir(kRaspOriginLogDir); }

// A fuse, not a rotation: once over the limit, every file goes.
int check_dump_path(const char* path) {
    DirWalk counting = open_dir_walk(path);
    if (!counting) {
        WL_LOG(LOG_LVL_ERROR, "open dump_path[%s] failed.\n", path);
        return -1;
    }
    long long budget = WL_ORIGIN_LOG_LIMIT;
    int isDir = 0;
    const char* entry = nullptr;
    while ((entry = dirwalk_read(counting.get(), &isDir)) != nullptr) {
        if (isDir) {
            continue;
        }
        struct stat info;
        if (lstat(entry, &info) != 0) {
            continue;
        }
        budget -= static_cast<long long>(info.st_size);
        if (budget < 0) {
            break;
        }
    }
    if (budget >= 0) {
        return 0;
    }
    WL_LOG(LOG_LVL_INFO, "dump block is over size, try to clean.\n");
    WL_LOG(LOG_LVL_INFO, "==start to clean dump path.\n");
    DirWalk cleaning = open_dir_walk(path);
    if (!cleaning) {
        WL_LOG(LOG_LVL_ERROR, "open dump_path[%s] failed.\n", path);
        return 0;
    }
    while ((entry = dirwalk_read(cleaning.get(), &isDir)) != nullptr) {
        if (isDir) {
            continue;
        }
        WL_LOG(LOG_LVL_INFO, "remove path %s", entry);
        remove(entry);
    }
    return 0;
}

}  // extern "C"
