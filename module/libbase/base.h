// BaseEngine: the host-event engine over the model library's BaseInterface.
// Three threads: "base_work" (queue -> filter -> library -> decision),
// "base_work_delay" (delay list -> queue) and "base_save" (the library's clock,
// saves and periodic reports).
#ifndef WL_BASE_H
#define WL_BASE_H

#include <atomic>
#include <set>
#include <string>

#include "base_interface.h"
#include "event_info.h"
#include "kem_result.h"
#include "model_records.h"
#include "orv_sync.h"
#include "transformer.h"

// Result of a failed engine start.
#define WL_ENGINE_INIT_FAILED KEM_E_FAIL

class BaseEngine {
public:
    static BaseEngine* GetInstance();

    // true when running afterwards; a failed start has been cleaned up.
    bool Initialize();
    void Uninitialize();
    unsigned int BaseInit();
    void BaseUninit();
    void getLocalIp();

    void WorkerRoutine();
    void WorkerDelayRoutine();
    // Caller holds m_engineLock.
    void DoWork(_BASE_EVENTINFO& event);
    void TimeCount();

    // 1 when the library was asked, 0 for a null record or an empty name.
    int parseInput(_USR_INPUT* input);
    // Caller holds m_engineLock. false only when the origin-log path is unset.
    bool isNeedSendReport(_BASE_EVENTINFO& event);
    bool dealAlarmEvent(std::string text);

    BaseInterface* m_baseEngine;
    // Written by the starting/stopping thread, polled by the loops; atomic so
    // the poll is a defined read (a stale value still costs one more pass).
    std::atomic<bool> m_isRunning;
    bool m_workThreadsStarted;
    bool m_saveThreadStarted;
    std::string m_logSavePath;
    std::string m_modelSavePath;
    orv_thread_t m_workThread;
    orv_thread_t m_workDelayThread;
    orv_thread_t m_saveThread;
    Transformer m_transformer;
    // Lock order: m_engineLock, then g_baseDataLock or the upload lock. The
    // worker releases g_baseDataLock before it takes m_engineLock, the delay
    // thread never takes m_engineLock, and no code path holds both engines'
    // m_engineLock (each engine only ever locks its own), so no cycle can form.
    // No queue lock is held across a library call.
    orv_mutex_t m_engineLock;
    orv_mutex_t m_spareLock;  // created and destroyed, never taken
    orv_cond_t m_stopCond;    // broadcast at stop; nobody waits on it
    std::set<std::string> m_localIps;

    BaseEngine(const BaseEngine&) = delete;
    BaseEngine& operator=(const BaseEngine&) = delete;

private:
    BaseEngine();
    ~BaseEngine();
};

// Opens the engine's log; 1 always.
int initializeLog();

extern "C" {
void* workThread(void* arg);
void* workDelayThread(void* arg);
void* saveModelThread(void* arg);
}

extern BaseEngine* base_engine;

#endif
