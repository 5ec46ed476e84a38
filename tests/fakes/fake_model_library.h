// A recording, scriptable stand-in for the model library behind BaseFactory
// and RaspFactory. Every operation is recorded with its arguments; results
// and the verdict that processEvent writes come from per-call scripts, then
// from defaults. Thread-safe.
#ifndef WL_FAKE_MODEL_LIBRARY_H
#define WL_FAKE_MODEL_LIBRARY_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "base_interface.h"

namespace fake_model {

enum class Engine { Base, Rasp };

// What one call carried. Fields that an operation has no use for stay empty.
struct Call {
    explicit Call(Engine e = Engine::Base, std::string o = "", std::string t = "", int f = 0, int n = 0)
        : engine(e), op(std::move(o)), text(std::move(t)), first(f), object(n) {}
    Engine engine;
    std::string op;    // operation name; "destroy" for the destructor
    std::string text;  // path, model name (the empty one for "all models") or alarm text
    int first;         // elapseTime's seconds, getBlackLog's flag
    int object;        // serial number of the library object
    // The event as the library received it.
    int eventType = 0;
    int delayGate = 0;
    std::string modelStatus;  // narrowed for the host record
    std::string eventTag;     // host: event_time as text; rasp: url
    int locks = 0;            // what the lock probe answered during the call
    _USR_INPUT input;         // initModel, interactModel: the whole command
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

    // Clears scripts, defaults and records; live objects stay counted.
    void reset();

    void setFactoryMode(Engine engine, FactoryMode mode);
    // Integer results (initModel: 0/1); unscripted ones are 0, initModel 1.
    void queueResult(Engine engine, const std::string& op, int value);
    // The queued integer result of op, else `fallback`; for the callers of
    // the engines that note their own calls.
    int takeResult(Engine engine, const std::string& op, int fallback);
    // Text results of getModelStatus, getModelData, getChangedModel, getBlackLog.
    void setDefaultText(Engine engine, const std::string& op, const std::string& text);
    void queueText(Engine engine, const std::string& op, const std::string& text);
    // The queue first, then the default; with neither the record stays as it came.
    void queueVerdict(Engine engine, const Verdict& verdict);
    void setDefaultVerdict(Engine engine, const Verdict& verdict);

    // Runs inside each call of op, after it is recorded and before it answers.
    void setHook(Engine engine, const std::string& op, std::function<void(const Call&)> hook);
    // Records a call made around the library, in order with its own calls.
    void note(const Call& call);

    // With an empty op, every call of the engine.
    std::vector<Call> calls(Engine engine, const std::string& op) const;
    int count(Engine engine, const std::string& op) const;
    std::vector<std::string> opSequence(Engine engine) const;
    // Both engines' calls in order, as "base:<op>" and "rasp:<op>".
    std::vector<std::string> opSequence() const;
    int liveObjects(Engine engine) const;
    // Asked on the calling thread during each call of the engine's objects;
    // its answer is kept in Call::locks. Empty: 0.
    void setLockProbe(Engine engine, std::function<int()> probe);

private:
    Library() = default;
};

}  // namespace fake_model

#endif
