// The model library's interface. The operations' order in the virtual tables
// is the contract with libbaseeng: do not reorder.
#ifndef WL_BASE_INTERFACE_H
#define WL_BASE_INTERFACE_H

#include <string>

#include "event_info.h"
#include "model_records.h"

// Period strings the module compares with model_status.
#define WL_LEARN_PERIOD "LEARN_PEROID"
#define WL_FILTER_PERIOD "FILTER_PEROID"
#define WL_LEARN_PERIOD_W L"LEARN_PEROID"
#define WL_FILTER_PERIOD_W L"FILTER_PEROID"
// Text results of getModelStatus / getModelData.
#define WL_RESULT_ERROR "ERROR"
#define WL_RESULT_EMPTY "{}"
// Results of interactModel that mean done: WL_INTERACT_OK, and for a delete
// also WL_INTERACT_DELETE_ANYWAY. Any other value is a refusal.
enum { WL_INTERACT_OK = 0, WL_INTERACT_DELETE_ANYWAY = -2 };

class BaseInterface {
public:
    virtual ~BaseInterface() {}
    virtual int setConfig(const char* configPath) = 0;  // -1 failure
    virtual int loadModel(const char* modelDir) = 0;    // -1 failure
    virtual int saveModel(const char* modelDir) = 0;
    virtual std::string getModelData(std::string modelName) = 0;
    virtual bool initModel(_USR_INPUT* input) = 0;
    virtual int processEvent(_BASE_EVENTINFO& event) = 0;
    virtual std::string getBlackLog(_BASE_EVENTINFO& event, int flag) = 0;
    virtual int saveOriginLog(_BASE_EVENTINFO& event, const char* logDir) = 0;
    virtual int interactModel(_USR_INPUT* input) = 0;  // WL_INTERACT_*
    virtual std::string getModelStatus(std::string modelName) = 0;
    virtual int elapseTime(int seconds, int reserved) = 0;
    virtual int feedbackAlarm(_BASE_EVENTINFO& event) = 0;
    virtual std::string getChangedModel() = 0;
};

class RaspInterface {
public:
    virtual ~RaspInterface() {}
    virtual int setConfig(const char* configPath) = 0;
    virtual int loadModel(const char* modelDir) = 0;
    virtual int saveModel(const char* modelDir) = 0;
    virtual bool initModel(_USR_INPUT* input) = 0;
    virtual int processEvent(_RASP_EVENTINFO& event) = 0;
    virtual int interactModel(_USR_INPUT* input) = 0;
    virtual int elapseTime(int seconds, int reserved) = 0;
    virtual std::string getModelStatus(std::string modelName) = 0;
    virtual std::string getBlackLog(_RASP_EVENTINFO& event, int flag) = 0;
    virtual std::string getModelData(std::string modelName) = 0;
    virtual int saveOriginLog(_RASP_EVENTINFO& event, const char* logDir) = 0;
    virtual int feedbackAlarm(_RASP_EVENTINFO& event) = 0;
    virtual std::string getChangedModel() = 0;
};

// Link-time entry points of libbaseeng. Each call makes a new object, owned by
// the caller; it may return null or throw.
class BaseFactory {
public:
    BaseInterface* getBaseInterface();
};

class RaspFactory {
public:
    RaspInterface* getRaspInterface();
};

#endif
