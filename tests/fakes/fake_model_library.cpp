#include "fake_model_library.h"

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace fake_model {
namespace {

typedef std::pair<Engine, std::string> Key;

const std::size_t kStatusCapacity = sizeof(_BASE_EVENTINFO::model_status) / sizeof(wchar_t);

struct Records {
    std::vector<Call> calls;
    std::map<Key, std::deque<std::string>> queued;  // integer results as text
    std::map<Key, std::string> defaults;
    std::map<Engine, std::deque<Verdict>> verdicts;
    std::map<Engine, Verdict> defaultVerdicts;
    std::map<Key, std::function<void(const Call&)>> hooks;
};

struct State {
    std::mutex mutex;
    Records records;
    std::map<Engine, int> live;
    std::map<Engine, int> serial;
    std::map<Engine, std::function<int()>> probes;
};

// Never destroyed: engines left running at exit keep calling in.
State& state() {
    static State& s = *new State;
    return s;
}

// Runs f on the state under its lock.
template <class F>
auto locked(F f) {
    std::lock_guard<std::mutex> lock(state().mutex);
    return f(state());
}

// The queued value first, then the default.
template <class Queues, class Defaults, class K, class T>
bool take(Queues& queues, const Defaults& defaults, const K& key, T& out) {
    auto& queue = queues[key];
    if (!queue.empty()) {
        out = queue.front();
        queue.pop_front();
        return true;
    }
    auto fallback = defaults.find(key);
    if (fallback != defaults.end()) out = fallback->second;
    return fallback != defaults.end();
}

std::string next(Engine engine, const std::string& op) {
    std::string out;
    if (locked([&](State& s) { return take(s.records.queued, s.records.defaults, Key(engine, op), out); })) {
        return out;
    }
    if (op == "initModel") return "1";
    if (op == "getModelStatus" || op == "getModelData") return WL_RESULT_EMPTY;
    return op == "getBlackLog" ? "{\"alarm\":\"black\"}" : "";
}

bool next_verdict(Engine engine, Verdict& verdict) {
    return locked([&](State& s) { return take(s.records.verdicts, s.records.defaultVerdicts, engine, verdict); });
}

void record(const Call& call) {
    locked([&](State& s) { s.records.calls.push_back(call); });
}

void fill(Call&, std::nullptr_t) {}

void fill(Call& call, const _USR_INPUT* input) {
    call.text = input->modelName;
    call.input = *input;
}

void fill(Call& call, const _BASE_EVENTINFO* event) {
    call.eventType = event->event_type;
    call.delayGate = event->delay_gate;
    for (std::size_t i = 0; i < kStatusCapacity && event->model_status[i] != 0; ++i) {
        call.modelStatus.push_back(static_cast<char>(event->model_status[i]));
    }
    call.eventTag = std::to_string(event->event_time);
}

void fill(Call& call, const _RASP_EVENTINFO* event) {
    call.eventType = event->action_type;
    call.modelStatus = event->model_status;
    call.eventTag = event->url;
}

void apply(const Verdict& verdict, _BASE_EVENTINFO& event) {
    event.origin_log_flag = static_cast<uint8_t>(verdict.origin_log_flag);
    event.delay_gate = static_cast<uint16_t>(verdict.delay_gate);
    event.match_verdict = static_cast<uint16_t>(verdict.match_verdict);
    std::size_t i = 0;
    for (; i < verdict.model_status.size() && i + 1 < kStatusCapacity; ++i) {
        event.model_status[i] = static_cast<wchar_t>(verdict.model_status[i]);
    }
    std::fill(event.model_status + i, event.model_status + kStatusCapacity, 0);
}

void apply(const Verdict& verdict, _RASP_EVENTINFO& event) {
    event.origin_log_flag = static_cast<uint8_t>(verdict.origin_log_flag);
    event.match_verdict = static_cast<uint16_t>(verdict.match_verdict);
    event.model_status = verdict.model_status;
}

int number(const std::string& text) { return std::atoi(text.c_str()); }

template <class Interface, class Event, Engine kEngine>
class FakeObject : public Interface {
public:
    FakeObject()
        : m_object(locked([](State& s) {
              ++s.live[kEngine];
              return ++s.serial[kEngine];
          })) {}
    ~FakeObject() override {
        record(Call(kEngine, "destroy", "", 0, m_object));
        locked([](State& s) { --s.live[kEngine]; });
    }
    int setConfig(const char* path) override { return number(run("setConfig", path)); }
    int loadModel(const char* path) override { return number(run("loadModel", path)); }
    int saveModel(const char* path) override { return number(run("saveModel", path)); }
    std::string getModelData(std::string name) override { return run("getModelData", name); }
    std::string getModelStatus(std::string name) override { return run("getModelStatus", name); }
    std::string getChangedModel() override { return run("getChangedModel"); }
    bool initModel(_USR_INPUT* input) override { return number(run("initModel", "", input)) != 0; }
    int interactModel(_USR_INPUT* input) override { return number(run("interactModel", "", input)); }
    int elapseTime(int seconds, int) override { return number(run("elapseTime", "", nullptr, seconds)); }
    int processEvent(Event& event) override {
        int result = number(run("processEvent", "", &event));
        Verdict verdict;
        if (next_verdict(kEngine, verdict)) apply(verdict, event);
        return result;
    }
    std::string getBlackLog(Event& event, int flag) override { return run("getBlackLog", "", &event, flag); }
    int saveOriginLog(Event& event, const char* dir) override { return number(run("saveOriginLog", dir, &event)); }
    int feedbackAlarm(Event& event) override { return number(run("feedbackAlarm", "", &event)); }

private:
    // Records the call with what it carried and returns its scripted result.
    template <class Arg = std::nullptr_t>
    std::string run(const char* op, const std::string& text = "", Arg arg = nullptr, int first = 0) {
        Call call(kEngine, op, text, first, m_object);
        fill(call, arg);
        std::function<int()> probe = locked([](State& s) { return s.probes[kEngine]; });
        if (probe) call.locks = probe();
        record(call);
        auto hook = locked([&](State& s) { return s.records.hooks[Key(kEngine, op)]; });
        if (hook) hook(call);
        return next(kEngine, op);
    }
    int m_object;
};

template <class Object>
Object* make_object(Engine engine, const char* op) {
    record(Call(engine, op));
    std::string mode = next(engine, "factory");
    if (mode == "throw") throw std::runtime_error("scripted factory failure");
    return mode == "null" ? nullptr : new Object;  // ownership passes to the engine
}

}  // namespace

Library& Library::instance() {
    static Library library;
    return library;
}

void Library::reset() {
    locked([](State& s) { s.records = Records(); });
}

void Library::setFactoryMode(Engine engine, FactoryMode mode) {
    setDefaultText(engine, "factory", mode == FactoryMode::Throw ? "throw" : mode == FactoryMode::Null ? "null" : "");
}

void Library::queueResult(Engine engine, const std::string& op, int value) {
    queueText(engine, op, std::to_string(value));
}

int Library::takeResult(Engine engine, const std::string& op, int fallback) {
    std::string out;
    bool taken =
        locked([&](State& s) { return take(s.records.queued, std::map<Key, std::string>(), Key(engine, op), out); });
    return taken ? number(out) : fallback;
}

void Library::setHook(Engine engine, const std::string& op, std::function<void(const Call&)> hook) {
    locked([&](State& s) { s.records.hooks[Key(engine, op)] = std::move(hook); });
}

void Library::note(const Call& call) { record(call); }

void Library::setDefaultText(Engine engine, const std::string& op, const std::string& text) {
    locked([&](State& s) { s.records.defaults[Key(engine, op)] = text; });
}

void Library::queueText(Engine engine, const std::string& op, const std::string& text) {
    locked([&](State& s) { s.records.queued[Key(engine, op)].push_back(text); });
}

void Library::queueVerdict(Engine engine, const Verdict& verdict) {
    locked([&](State& s) { s.records.verdicts[engine].push_back(verdict); });
}

void Library::setDefaultVerdict(Engine engine, const Verdict& verdict) {
    locked([&](State& s) { s.records.defaultVerdicts[engine] = verdict; });
}

std::vector<Call> Library::calls(Engine engine, const std::string& op) const {
    std::vector<Call> out;
    for (const Call& call : locked([](State& s) { return s.records.calls; })) {
        if (call.engine == engine && (op.empty() || call.op == op)) out.push_back(call);
    }
    return out;
}

int Library::count(Engine engine, const std::string& op) const { return static_cast<int>(calls(engine, op).size()); }

std::vector<std::string> Library::opSequence(Engine engine) const {
    std::vector<std::string> ops;
    for (const Call& call : calls(engine, "")) ops.push_back(call.op);
    return ops;
}

std::vector<std::string> Library::opSequence() const {
    std::vector<std::string> ops;
    for (const Call& call : locked([](State& s) { return s.records.calls; })) {
        ops.push_back((call.engine == Engine::Base ? "base:" : "rasp:") + call.op);
    }
    return ops;
}

int Library::liveObjects(Engine engine) const {
    return locked([engine](State& s) { return s.live[engine]; });
}

void Library::setLockProbe(Engine engine, std::function<int()> probe) {
    locked([&](State& s) { s.probes[engine] = std::move(probe); });
}

}  // namespace fake_model

BaseInterface* BaseFactory::getBaseInterface() {
    using namespace fake_model;
    return make_object<FakeObject<BaseInterface, _BASE_EVENTINFO, Engine::Base>>(Engine::Base, "getBaseInterface");
}

RaspInterface* RaspFactory::getRaspInterface() {
    using namespace fake_model;
    return make_object<FakeObject<RaspInterface, _RASP_EVENTINFO, Engine::Rasp>>(Engine::Rasp, "getRaspInterface");
}
