#define WL_LOG_SOURCE "rasp"

#include "rasp.h"

#include <cstdlib>
#include <new>

#include "base_support.h"
#include "dirutils.h"
#include "event_queues.h"
#include "orv_dll.h"
#include "wl_log.h"

namespace {
const char kLogDir[] = "@/../var/log/agent/rasp_engine";
const char kConfigFile[] = "@/../config/baseConfig.ini";
const char kModelDir[] = "@/../var/base/raspModel";
const char kOriginLogDir[] = "@/../var/base/raspOriginLog";
}  // namespace

int initLog() {
    WL_LOG(LOG_LVL_INFO, "initialize log");
    autolog_init(engine_resolve_path(kLogDir).c_str(), 5);
    return 1;
}

RaspEngine* RaspEngine::GetInstance() {
    // Released at exit only when stopped: running threads use every member.
    alignas(RaspEngine) static unsigned char storage[sizeof(RaspEngine)];
    static RaspEngine* instance = [] {
        RaspEngine* engine = new (storage) RaspEngine();
        std::atexit([] {
            if (!instance->m_isRunning.load()) instance->~RaspEngine();
        });
        return engine;
    }();
    return instance;
}

RaspEngine::RaspEngine()
    : m_raspEngine(nullptr),
      m_isRunning(false),
      m_workThread(0),
      m_saveThread(0),
      m_workThreadsStarted(false),
      m_saveThreadStarted(false),
      m_engineLock(nullptr),
      m_spareLock(nullptr),
      m_stopCond(nullptr) {
    orv_mutex_init(&m_engineLock);
    orv_mutex_init(&m_spareLock);
    orv_cond_init(&m_stopCond);
}

// Releases the members only, as BaseEngine does.
RaspEngine::~RaspEngine() {
    orv_cond_destroy(&m_stopCond);
    orv_mutex_destroy(&m_spareLock);
    orv_mutex_destroy(&m_engineLock);
}

bool RaspEngine::Initialize() {
    unsigned int code = RaspInit();
    if (code == 0) {
        return true;
    }
    WL_LOG(LOG_LVL_ERROR, "RaspEngine init failed!0x%08x", code);
    Uninitialize();
    return false;
}

void RaspEngine::Uninitialize() {
    if (m_raspEngine != nullptr) {
        RaspUninit();
    }
}

unsigned int RaspEngine::RaspInit() {
    if (m_isRunning.load()) {
        return 0;
    }
    initLog();
    getLocalIp();

    RaspFactory obEngine;
    try {
        m_raspEngine = obEngine.getRaspInterface();
    } catch (...) {
        WL_LOG(LOG_LVL_ERROR, "get raspInterface error");
        return WL_ENGINE_INIT_FAILED;
    }
    if (m_raspEngine == nullptr) {
        WL_LOG(LOG_LVL_ERROR, "m_raspEngine is null");
        return WL_ENGINE_INIT_FAILED;
    }

    if (!engine_prepare_library(WL_LOG_SOURCE, m_raspEngine, kConfigFile, kModelDir, kOriginLogDir, m_modelSavePath,
                                m_logSavePath)) {
        RaspUninit();
        return WL_ENGINE_INIT_FAILED;
    }

    m_isRunning.store(true);
    engine_start_thread(&m_workThread, raspWorkThread);
    m_workThreadsStarted = true;
    engine_start_thread(&m_saveThread, saveRaspModelThread);
    m_saveThreadStarted = true;
    WL_LOG(LOG_LVL_INFO, "Initialize suc");
    return 0;
}

void RaspEngine::RaspUninit() {
    m_isRunning.store(false);
    orv_cond_broadcast(&m_stopCond);
    if (m_workThreadsStarted) {
        orv_thread_join(m_workThread);
    }
    if (m_saveThreadStarted) {
        orv_thread_join(m_saveThread);
    }
    m_workThreadsStarted = false;
    m_saveThreadStarted = false;
    {
        OrvLockGuard lock(&g_raspDataLock);
        g_raspData.clear();
    }
    // Under the engine lock: parseInput and dealAlarmEvent test the pointer there.
    OrvLockGuard engine(&m_engineLock);
    if (m_raspEngine != nullptr) {
        // Owned since the factory call; the deleting destructor frees it.
        delete m_raspEngine;
        m_raspEngine = nullptr;
    }
}

void RaspEngine::getLocalIp() { engine_collect_local_ips(WL_LOG_SOURCE, m_localIps); }

extern "C" void* raspWorkThread(void*) {
    initLog();
    WL_LOG(LOG_LVL_INFO, "WorkerRoutine Thread start");
    engine_set_thread_name("rasp_work");
    RaspEngine::GetInstance()->WorkerRoutine();
    orv_thread_exit(nullptr);
}

extern "C" void* saveRaspModelThread(void*) {
    engine_set_thread_name("rasp_save");
    RaspEngine::GetInstance()->TimeCount();
    orv_thread_exit(nullptr);
}
