#define WL_LOG_SOURCE "base"

#include "base.h"

#include <cstdlib>
#include <new>

#include "base_support.h"
#include "dirutils.h"
#include "event_queues.h"
#include "orv_dll.h"
#include "wl_log.h"

namespace {
const char kLogDir[] = "@/../var/log/agent/base_engine";
const char kConfigFile[] = "@/../config/baseConfig.ini";
const char kModelDir[] = "@/../var/base/model";
const char kOriginLogDir[] = "@/../var/base/originLog";
}  // namespace

int initializeLog() {
    WL_LOG(LOG_LVL_INFO, "initialize log");
    autolog_init(engine_resolve_path(kLogDir).c_str(), 5);
    return 1;
}

BaseEngine* BaseEngine::GetInstance() {
    // Released at exit only when stopped: running threads use every member.
    alignas(BaseEngine) static unsigned char storage[sizeof(BaseEngine)];
    static BaseEngine* instance = [] {
        BaseEngine* engine = new (storage) BaseEngine();
        std::atexit([] {
            if (!instance->m_isRunning.load()) instance->~BaseEngine();
        });
        return engine;
    }();
    return instance;
}

BaseEngine::BaseEngine()
    : m_baseEngine(nullptr),
      m_isRunning(false),
      m_workThreadsStarted(false),
      m_saveThreadStarted(false),
      m_workThread(0),
      m_workDelayThread(0),
      m_saveThread(0),
      m_engineLock(nullptr),
      m_spareLock(nullptr),
      m_stopCond(nullptr) {
    orv_mutex_init(&m_engineLock);
    orv_mutex_init(&m_spareLock);
    orv_cond_init(&m_stopCond);
}

// Releases the members only: a process that ends with the engine running gets
// no stop and no last save.
BaseEngine::~BaseEngine() {
    orv_cond_destroy(&m_stopCond);
    orv_mutex_destroy(&m_spareLock);
    orv_mutex_destroy(&m_engineLock);
}

bool BaseEngine::Initialize() {
    unsigned int code = BaseInit();
    if (code == 0) {
        return true;
    }
    WL_LOG(LOG_LVL_ERROR, "baseEngine init failed!0x%08x", code);
    Uninitialize();
    return false;
}

void BaseEngine::Uninitialize() {
    if (m_baseEngine != nullptr) {
        BaseUninit();
    }
}

unsigned int BaseEngine::BaseInit() {
    if (m_isRunning.load()) {
        return 0;
    }
    initializeLog();
    getLocalIp();

    BaseFactory obEngine;
    try {
        m_baseEngine = obEngine.getBaseInterface();
    } catch (...) {
        WL_LOG(LOG_LVL_ERROR, "obEngine.getBaseInterface error");
        return WL_ENGINE_INIT_FAILED;
    }
    if (m_baseEngine == nullptr) {
        WL_LOG(LOG_LVL_ERROR, "m_baseEngine is null");
        return WL_ENGINE_INIT_FAILED;
    }

    if (!engine_prepare_library(WL_LOG_SOURCE, m_baseEngine, kConfigFile, kModelDir, kOriginLogDir, m_modelSavePath,
                                m_logSavePath)) {
        BaseUninit();
        return WL_ENGINE_INIT_FAILED;
    }

    m_isRunning.store(true);
    engine_start_thread(&m_workThread, workThread);
    engine_start_thread(&m_workDelayThread, workDelayThread);
    m_workThreadsStarted = true;
    engine_start_thread(&m_saveThread, saveModelThread);
    m_saveThreadStarted = true;
    WL_LOG(LOG_LVL_INFO, "Initialize suc");
    return 0;
}

void BaseEngine::BaseUninit() {
    m_isRunning.store(false);
    orv_cond_broadcast(&m_stopCond);
    if (m_workThreadsStarted) {
        orv_thread_join(m_workThread);
        orv_thread_join(m_workDelayThread);
    }
    if (m_saveThreadStarted) {
        orv_thread_join(m_saveThread);
    }
    m_workThreadsStarted = false;
    m_saveThreadStarted = false;
    {
        // Queued events are dropped, not flushed to the library.
        OrvLockGuard lock(&g_baseDataLock);
        g_baseData.clear();
        g_baseDelayData.clear();
    }
    // Under the engine lock: parseInput and dealAlarmEvent test the pointer there.
    OrvLockGuard engine(&m_engineLock);
    if (m_baseEngine != nullptr) {
        // The library hands the object over to us; its deleting destructor frees it.
        delete m_baseEngine;
        m_baseEngine = nullptr;
    }
}

void BaseEngine::getLocalIp() { engine_collect_local_ips(WL_LOG_SOURCE, m_localIps); }

extern "C" void* workThread(void*) {
    initializeLog();
    engine_set_thread_name("base_work");
    WL_LOG(LOG_LVL_INFO, "WorkerRoutine Thread start");
    BaseEngine::GetInstance()->WorkerRoutine();
    orv_thread_exit(nullptr);
}

extern "C" void* workDelayThread(void*) {
    engine_set_thread_name("base_work_delay");
    BaseEngine::GetInstance()->WorkerDelayRoutine();
    orv_thread_exit(nullptr);
}

extern "C" void* saveModelThread(void*) {
    engine_set_thread_name("base_save");
    BaseEngine::GetInstance()->TimeCount();
    orv_thread_exit(nullptr);
}
