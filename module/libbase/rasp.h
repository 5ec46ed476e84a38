// RaspEngine: the runtime-application engine over RaspInterface. Two threads:
// "rasp_work" (telemetry text -> record -> filter -> library -> decision) and
// "rasp_save" (the library's clock, saves and periodic reports). No delay list.
#ifndef WL_RASP_H
#define WL_RASP_H

#include <atomic>
#include <set>
#include <string>

#include "base.h"
#include "base_interface.h"
#include "event_info.h"
#include "model_records.h"
#include "orv_sync.h"
#include "transformer.h"

class RaspEngine {
public:
    static RaspEngine* GetInstance();

    bool Initialize();
    void Uninitialize();
    unsigned int RaspInit();
    void RaspUninit();
    void getLocalIp();

    void WorkerRoutine();
    // Caller holds m_engineLock.
    void DoWork(_RASP_EVENTINFO& event);
    void TimeCount();

    int parseInput(_USR_INPUT* input);
    // Caller holds m_engineLock.
    bool isNeedSendReport(_RASP_EVENTINFO& event);
    bool dealAlarmEvent(std::string text);

    RaspInterface* m_raspEngine;
    std::atomic<bool> m_isRunning;  // see BaseEngine::m_isRunning
    std::string m_logSavePath;
    std::string m_modelSavePath;
    Transformer m_transformer;
    orv_thread_t m_workThread;
    orv_thread_t m_saveThread;
    bool m_workThreadsStarted;
    bool m_saveThreadStarted;
    // Lock order: m_engineLock, then the upload lock. g_raspDataLock is never
    // nested with m_engineLock: the worker drops it before converting. This
    // engine never touches BaseEngine's lock, so the two are never held together.
    orv_mutex_t m_engineLock;
    orv_mutex_t m_spareLock;  // created and destroyed, never taken
    orv_cond_t m_stopCond;    // broadcast at stop; nobody waits on it
    std::set<std::string> m_localIps;

    RaspEngine(const RaspEngine&) = delete;
    RaspEngine& operator=(const RaspEngine&) = delete;

private:
    RaspEngine();
    ~RaspEngine();
};

// Opens the runtime-application engine's log; 1 always.
int initLog();

extern "C" {
void* raspWorkThread(void* arg);
void* saveRaspModelThread(void* arg);
}

extern RaspEngine* rasp_engine;

#endif
