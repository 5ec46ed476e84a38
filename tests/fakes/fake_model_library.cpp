#include "fake_model_library.h"

#include <condition_variable>
#include <cwchar>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace fake_model {
namespace {

typedef std::pair<Engine, std::string> Key;

struct State {
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<Call> calls;
    std::map<Key, std::deque<int>> results;
    std::map<Key, int> defaultResults;
    std::map<Key, std::deque<std::string>> texts;
    std::map<Key, std::string> defaultTexts;
    std::map<Engine, std::deque<Verdict>> verdicts;
    std::map<Engine, Verdict> defaultVerdicts;
    std::map<Engine, FactoryMode> factory;
    std::map<Engine, int> live;
    std::map<Engine, int> serial;
    std::function<void(const Call&)> hook;
};

State& state() {
    static State s;
    return s;
}

int builtinResult(const std::string& op) { return op == "initModel" ? 1 : 0; }

std::string builtinText(const std::string& op) {
    if (op == "getModelStatus" || op == "getModelData") {
        return WL_RESULT_EMPTY;
    }
    if (op == "getBlackLog") {
        return "{\"alarm\":\"black\"}";
    }
    return "";
}

void fillInput(Call& call, const _USR_INPUT* input) {
    if (input == nullptr) {
        return;
    }
    call.oprType = input->oprType;
    call.modelName = input->modelName;
    call.learnTime = input->learnTime;
    call.switchValue = input->switchValue;
}

void fillEvent(Call& call, const _BASE_EVENTINFO& event) {
    call.eventType = event.event_type;
    call.originLogFlag = event.origin_log_flag;
    call.delayGate = event.delay_gate;
    call.matchVerdict = event.match_verdict;
    call.modelStatus = narrow_status(event);
    call.eventTag = std::to_string(event.event_time);
}

void fillEvent(Call& call, const _RASP_EVENTINFO& event) {
    call.eventType = event.action_type;
    call.originLogFlag = event.origin_log_flag;
    call.matchVerdict = event.match_verdict;
    call.modelStatus = event.model_status;
    call.eventTag = event.url;
}

template <class Event>
Call eventCall(Engine engine, const char* op, const Event& event, int object) {
    Call call;
    call.engine = engine;
    call.op = op;
    call.object = object;
    fillEvent(call, event);
    return call;
}

Call plainCall(Engine engine, const char* op, int object, const std::string& text = std::string()) {
    Call call;
    call.engine = engine;
    call.op = op;
    call.text = text;
    call.object = object;
    return call;
}

class FakeBase : public BaseInterface {
public:
    FakeBase() : m_object(Library::instance().created(Engine::Base)) {}
    ~FakeBase() override {
        Library::instance().record(plainCall(Engine::Base, "destroy", m_object));
        Library::instance().destroyed(Engine::Base);
    }
    int setConfig(const char* path) override { return intOp("setConfig", path); }
    int loadModel(const char* path) override { return intOp("loadModel", path); }
    int saveModel(const char* path) override { return intOp("saveModel", path); }
    std::string getModelData(std::string name) override { return textOp("getModelData", name); }
    bool initModel(_USR_INPUT* input) override { return inputOp("initModel", input) != 0; }
    int processEvent(_BASE_EVENTINFO& event) override {
        Library& lib = Library::instance();
        lib.record(eventCall(Engine::Base, "processEvent", event, m_object));
        Verdict verdict;
        if (lib.nextVerdict(Engine::Base, verdict)) {
            event.origin_log_flag = static_cast<uint8_t>(verdict.origin_log_flag);
            event.delay_gate = static_cast<uint16_t>(verdict.delay_gate);
            event.match_verdict = static_cast<uint16_t>(verdict.match_verdict);
            set_status(event, verdict.model_status);
        }
        return lib.nextResult(Engine::Base, "processEvent");
    }
    std::string getBlackLog(_BASE_EVENTINFO& event, int flag) override {
        Call call = eventCall(Engine::Base, "getBlackLog", event, m_object);
        call.first = flag;
        Library::instance().record(call);
        return Library::instance().nextText(Engine::Base, "getBlackLog");
    }
    int saveOriginLog(_BASE_EVENTINFO& event, const char* dir) override {
        Call call = eventCall(Engine::Base, "saveOriginLog", event, m_object);
        call.text = dir;
        Library::instance().record(call);
        return Library::instance().nextResult(Engine::Base, "saveOriginLog");
    }
    int interactModel(_USR_INPUT* input) override { return inputOp("interactModel", input); }
    std::string getModelStatus(std::string name) override { return textOp("getModelStatus", name); }
    int elapseTime(int seconds, int reserved) override {
        Call call = plainCall(Engine::Base, "elapseTime", m_object);
        call.first = seconds;
        call.second = reserved;
        Library::instance().record(call);
        return Library::instance().nextResult(Engine::Base, "elapseTime");
    }
    int feedbackAlarm(_BASE_EVENTINFO& event) override {
        Library::instance().record(eventCall(Engine::Base, "feedbackAlarm", event, m_object));
        return Library::instance().nextResult(Engine::Base, "feedbackAlarm");
    }
    std::string getChangedModel() override { return textOp("getChangedModel", std::string()); }

private:
    int intOp(const char* op, const char* path) {
        Library::instance().record(plainCall(Engine::Base, op, m_object, path ? path : ""));
        return Library::instance().nextResult(Engine::Base, op);
    }
    std::string textOp(const char* op, const std::string& name) {
        Library::instance().record(plainCall(Engine::Base, op, m_object, name));
        return Library::instance().nextText(Engine::Base, op);
    }
    int inputOp(const char* op, _USR_INPUT* input) {
        Call call = plainCall(Engine::Base, op, m_object);
        fillInput(call, input);
        Library::instance().record(call);
        return Library::instance().nextResult(Engine::Base, op);
    }
    int m_object;
};

class FakeRasp : public RaspInterface {
public:
    FakeRasp() : m_object(Library::instance().created(Engine::Rasp)) {}
    ~FakeRasp() override {
        Library::instance().record(plainCall(Engine::Rasp, "destroy", m_object));
        Library::instance().destroyed(Engine::Rasp);
    }
    int setConfig(const char* path) override { return intOp("setConfig", path); }
    int loadModel(const char* path) override { return intOp("loadModel", path); }
    int saveModel(const char* path) override { return intOp("saveModel", path); }
    bool initModel(_USR_INPUT* input) override { return inputOp("initModel", input) != 0; }
    int processEvent(_RASP_EVENTINFO& event) override {
        Library& lib = Library::instance();
        lib.record(eventCall(Engine::Rasp, "processEvent", event, m_object));
        Verdict verdict;
        if (lib.nextVerdict(Engine::Rasp, verdict)) {
            event.origin_log_flag = static_cast<uint8_t>(verdict.origin_log_flag);
            event.match_verdict = static_cast<uint16_t>(verdict.match_verdict);
            event.model_status = verdict.model_status;
        }
        return lib.nextResult(Engine::Rasp, "processEvent");
    }
    int interactModel(_USR_INPUT* input) override { return inputOp("interactModel", input); }
    int elapseTime(int seconds, int reserved) override {
        Call call = plainCall(Engine::Rasp, "elapseTime", m_object);
        call.first = seconds;
        call.second = reserved;
        Library::instance().record(call);
        return Library::instance().nextResult(Engine::Rasp, "elapseTime");
    }
    std::string getModelStatus(std::string name) override { return textOp("getModelStatus", name); }
    std::string getBlackLog(_RASP_EVENTINFO& event, int flag) override {
        Call call = eventCall(Engine::Rasp, "getBlackLog", event, m_object);
        call.first = flag;
        Library::instance().record(call);
        return Library::instance().nextText(Engine::Rasp, "getBlackLog");
    }
    std::string getModelData(std::string name) override { return textOp("getModelData", name); }
    int saveOriginLog(_RASP_EVENTINFO& event, const char* dir) override {
        Call call = eventCall(Engine::Rasp, "saveOriginLog", event, m_object);
        call.text = dir;
        Library::instance().record(call);
        return Library::instance().nextResult(Engine::Rasp, "saveOriginLog");
    }
    int feedbackAlarm(_RASP_EVENTINFO& event) override {
        Library::instance().record(eventCall(Engine::Rasp, "feedbackAlarm", event, m_object));
        return Library::instance().nextResult(Engine::Rasp, "feedbackAlarm");
    }
    std::string getChangedModel() override { return textOp("getChangedModel", std::string()); }

private:
    int intOp(const char* op, const char* path) {
        Library::instance().record(plainCall(Engine::Rasp, op, m_object, path ? path : ""));
        return Library::instance().nextResult(Engine::Rasp, op);
    }
    std::string textOp(const char* op, const std::string& name) {
        Library::instance().record(plainCall(Engine::Rasp, op, m_object, name));
        return Library::instance().nextText(Engine::Rasp, op);
    }
    int inputOp(const char* op, _USR_INPUT* input) {
        Call call = plainCall(Engine::Rasp, op, m_object);
        fillInput(call, input);
        Library::instance().record(call);
        return Library::instance().nextResult(Engine::Rasp, op);
    }
    int m_object;
};

}  // namespace

Library& Library::instance() {
    static Library library;
    return library;
}

void Library::reset() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.calls.clear();
    s.results.clear();
    s.defaultResults.clear();
    s.texts.clear();
    s.defaultTexts.clear();
    s.verdicts.clear();
    s.defaultVerdicts.clear();
    s.factory.clear();
    s.hook = nullptr;
}

void Library::setFactoryMode(Engine engine, FactoryMode mode) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().factory[engine] = mode;
}

void Library::setDefaultResult(Engine engine, const std::string& op, int value) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().defaultResults[Key(engine, op)] = value;
}

void Library::queueResult(Engine engine, const std::string& op, int value) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().results[Key(engine, op)].push_back(value);
}

void Library::setDefaultText(Engine engine, const std::string& op, const std::string& text) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().defaultTexts[Key(engine, op)] = text;
}

void Library::queueText(Engine engine, const std::string& op, const std::string& text) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().texts[Key(engine, op)].push_back(text);
}

void Library::queueVerdict(Engine engine, const Verdict& verdict) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().verdicts[engine].push_back(verdict);
}

void Library::setDefaultVerdict(Engine engine, const Verdict& verdict) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().defaultVerdicts[engine] = verdict;
}

void Library::clearDefaultVerdict(Engine engine) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().defaultVerdicts.erase(engine);
}

void Library::setHook(std::function<void(const Call&)> hook) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().hook = std::move(hook);
}

std::vector<Call> Library::calls() const {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().calls;
}

std::vector<Call> Library::calls(Engine engine, const std::string& op) const {
    std::lock_guard<std::mutex> lock(state().mutex);
    std::vector<Call> out;
    for (const Call& call : state().calls) {
        if (call.engine == engine && call.op == op) {
            out.push_back(call);
        }
    }
    return out;
}

int Library::count(Engine engine, const std::string& op) const {
    return static_cast<int>(calls(engine, op).size());
}

std::vector<std::string> Library::opSequence(Engine engine) const {
    std::lock_guard<std::mutex> lock(state().mutex);
    std::vector<std::string> out;
    for (const Call& call : state().calls) {
        if (call.engine == engine) {
            out.push_back(call.op);
        }
    }
    return out;
}

bool Library::waitForCount(Engine engine, const std::string& op, int n, std::chrono::milliseconds timeout) const {
    State& s = state();
    std::unique_lock<std::mutex> lock(s.mutex);
    return s.changed.wait_for(lock, timeout, [&] {
        int found = 0;
        for (const Call& call : s.calls) {
            if (call.engine == engine && call.op == op) {
                ++found;
            }
        }
        return found >= n;
    });
}

int Library::liveObjects(Engine engine) const {
    std::lock_guard<std::mutex> lock(state().mutex);
    auto it = state().live.find(engine);
    return it == state().live.end() ? 0 : it->second;
}

Call Library::record(Call call) {
    call.thread = std::this_thread::get_id();
    std::function<void(const Call&)> hook;
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        state().calls.push_back(call);
        hook = state().hook;
    }
    state().changed.notify_all();
    if (hook) {
        hook(call);
    }
    return call;
}

int Library::nextResult(Engine engine, const std::string& op) {
    std::lock_guard<std::mutex> lock(state().mutex);
    Key key(engine, op);
    auto queued = state().results.find(key);
    if (queued != state().results.end() && !queued->second.empty()) {
        int value = queued->second.front();
        queued->second.pop_front();
        return value;
    }
    auto fallback = state().defaultResults.find(key);
    return fallback != state().defaultResults.end() ? fallback->second : builtinResult(op);
}

std::string Library::nextText(Engine engine, const std::string& op) {
    std::lock_guard<std::mutex> lock(state().mutex);
    Key key(engine, op);
    auto queued = state().texts.find(key);
    if (queued != state().texts.end() && !queued->second.empty()) {
        std::string value = queued->second.front();
        queued->second.pop_front();
        return value;
    }
    auto fallback = state().defaultTexts.find(key);
    return fallback != state().defaultTexts.end() ? fallback->second : builtinText(op);
}

bool Library::nextVerdict(Engine engine, Verdict& verdict) {
    std::lock_guard<std::mutex> lock(state().mutex);
    auto queued = state().verdicts.find(engine);
    if (queued != state().verdicts.end() && !queued->second.empty()) {
        verdict = queued->second.front();
        queued->second.pop_front();
        return true;
    }
    auto fallback = state().defaultVerdicts.find(engine);
    if (fallback == state().defaultVerdicts.end()) {
        return false;
    }
    verdict = fallback->second;
    return true;
}

int Library::created(Engine engine) {
    std::lock_guard<std::mutex> lock(state().mutex);
    ++state().live[engine];
    return ++state().serial[engine];
}

void Library::destroyed(Engine engine) {
    std::lock_guard<std::mutex> lock(state().mutex);
    --state().live[engine];
}

FactoryMode Library::factoryMode(Engine engine) const {
    std::lock_guard<std::mutex> lock(state().mutex);
    auto it = state().factory.find(engine);
    return it == state().factory.end() ? FactoryMode::Normal : it->second;
}

std::string narrow_status(const _BASE_EVENTINFO& event) {
    const std::size_t capacity = sizeof(event.model_status) / sizeof(wchar_t);
    std::string text;
    for (std::size_t i = 0; i < capacity && event.model_status[i] != 0; ++i) {
        text.push_back(static_cast<char>(event.model_status[i]));
    }
    return text;
}

void set_status(_BASE_EVENTINFO& event, const std::string& text) {
    const std::size_t capacity = sizeof(event.model_status) / sizeof(wchar_t);
    std::size_t i = 0;
    for (; i < text.size() && i + 1 < capacity; ++i) {
        event.model_status[i] = static_cast<wchar_t>(static_cast<signed char>(text[i]));
    }
    for (; i < capacity; ++i) {
        event.model_status[i] = 0;
    }
}

}  // namespace fake_model

// The model library's two entry points.
BaseInterface* BaseFactory::getBaseInterface() {
    using fake_model::FactoryMode;
    fake_model::Library& lib = fake_model::Library::instance();
    lib.record(fake_model::plainCall(fake_model::Engine::Base, "getBaseInterface", 0));
    switch (lib.factoryMode(fake_model::Engine::Base)) {
        case FactoryMode::Throw:
            throw std::runtime_error("scripted factory failure");
        case FactoryMode::Null:
            return nullptr;
        default:
            return new fake_model::FakeBase;  // ownership passes to the engine
    }
}

RaspInterface* RaspFactory::getRaspInterface() {
    using fake_model::FactoryMode;
    fake_model::Library& lib = fake_model::Library::instance();
    lib.record(fake_model::plainCall(fake_model::Engine::Rasp, "getRaspInterface", 0));
    switch (lib.factoryMode(fake_model::Engine::Rasp)) {
        case FactoryMode::Throw:
            throw std::runtime_error("scripted factory failure");
        case FactoryMode::Null:
            return nullptr;
        default:
            return new fake_model::FakeRasp;
    }
}
