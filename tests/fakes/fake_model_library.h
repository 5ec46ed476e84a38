// A recording, scriptable stand-in for the model library behind BaseFactory
// and RaspFactory. Every operation is recorded with its arguments and calling
// thread; results and the verdict fields that processEvent writes come from
// per-call scripts, then from defaults. Thread-safe.
#ifndef WL_FAKE_MODEL_LIBRARY_H
#define WL_FAKE_MODEL_LIBRARY_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "base_interface.h"

namespace fake_model {

enum class Engine { Base, Rasp };

// What one call carried. Fields that an operation has no use for stay empty.
struct Call {
    Engine engine = Engine::Base;
    std::string op;    // operation name, e.g. "processEvent"; "destroy" for the destructor
    std::string text;  // path, model name or the empty name for "all models"
    int first = 0;     // elapseTime's words, getBlackLog's flag
    int second = 0;
    // _USR_INPUT of initModel / interactModel.
    int oprType = 0;
    std::string modelName;
    unsigned learnTime = 0;
    unsigned switchValue = 0;
    // The event as the library received it (before any scripted verdict).
    int eventType = 0;
    int originLogFlag = 0;
    int delayGate = 0;
    int matchVerdict = 0;
    std::string modelStatus;  // narrowed for the host record
    std::string eventTag;     // host: event_time as text; rasp: url
    std::thread::id thread;
    int object = 0;  // serial number of the library object
};

// What processEvent writes into the record.
struct Verdict {
    int origin_log_flag = 0;
    int delay_gate = 0;
    int match_verdict = 0;
    std::string model_status;
};

enum class FactoryMode { Normal, Throw, Null };

class Library {
public:
    static Library& instance();

    // Clears scripts, defaults, hook and records; live objects stay counted.
    void reset();

    void setFactoryMode(Engine engine, FactoryMode mode);
    // Integer results of setConfig, loadModel, saveModel, initModel (0/1),
    // interactModel, processEvent, feedbackAlarm, elapseTime, saveOriginLog.
    void setDefaultResult(Engine engine, const std::string& op, int value);
    void queueResult(Engine engine, const std::string& op, int value);
    // Text results of getModelStatus, getModelData, getChangedModel, getBlackLog.
    void setDefaultText(Engine engine, const std::string& op, const std::string& text);
    void queueText(Engine engine, const std::string& op, const std::string& text);
    // Verdicts of processEvent: the queue first, then the default if one is
    // set; with neither, the record is left as it came.
    void queueVerdict(Engine engine, const Verdict& verdict);
    void setDefaultVerdict(Engine engine, const Verdict& verdict);
    void clearDefaultVerdict(Engine engine);
    // Runs on the calling thread inside every operation, after recording and
    // before the result is chosen; never under the fake's own lock.
    void setHook(std::function<void(const Call&)> hook);

    std::vector<Call> calls() const;
    std::vector<Call> calls(Engine engine, const std::string& op) const;
    int count(Engine engine, const std::string& op) const;
    std::vector<std::string> opSequence(Engine engine) const;
    bool waitForCount(Engine engine, const std::string& op, int n,
                      std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    int liveObjects(Engine engine) const;

    // Used by the fake objects.
    Call record(Call call);
    int nextResult(Engine engine, const std::string& op);
    std::string nextText(Engine engine, const std::string& op);
    bool nextVerdict(Engine engine, Verdict& verdict);
    int created(Engine engine);
    void destroyed(Engine engine);
    FactoryMode factoryMode(Engine engine) const;

private:
    Library() = default;
};

// Narrows a host record's wide period text.
std::string narrow_status(const _BASE_EVENTINFO& event);
// Writes text into a host record's wide period field.
void set_status(_BASE_EVENTINFO& event, const std::string& text);

}  // namespace fake_model

#endif
