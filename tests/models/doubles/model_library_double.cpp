#include "model_library_double.h"

#include "whitelist_api_engine_calls.h"

namespace models_double {
namespace {

std::vector<EngineCall> g_calls;
EngineScript g_scripts[2];

EngineScript& script_of(Engine engine) { return g_scripts[engine == Engine::Base ? 0 : 1]; }

void record(Engine engine, const char* op, const _USR_INPUT* input, const std::string& text = "") {
    g_calls.push_back({engine, op, input ? *input : _USR_INPUT(), text});
}

template <typename T>
T next(std::deque<T>& queue, T fallback) {
    if (queue.empty()) return fallback;
    T value = queue.front();
    queue.pop_front();
    return value;
}

// Only the two operations model management uses do anything.
template <class Interface, class Event, Engine kEngine>
class Library : public Interface {
public:
    int setConfig(const char*) override { return 0; }
    int loadModel(const char*) override { return 0; }
    int saveModel(const char*) override { return 0; }
    std::string getModelData(std::string) override { return "{}"; }
    bool initModel(_USR_INPUT* input) override {
        record(kEngine, "initModel", input);
        return next(script_of(kEngine).init_results, true);
    }
    int processEvent(Event&) override { return 0; }
    std::string getBlackLog(Event&, int) override { return ""; }
    int saveOriginLog(Event&, const char*) override { return 0; }
    int interactModel(_USR_INPUT* input) override {
        record(kEngine, "interactModel", input);
        if (script_of(kEngine).on_interact) script_of(kEngine).on_interact(*input);
        return next(script_of(kEngine).interact_results, 0);
    }
    std::string getModelStatus(std::string) override { return "{}"; }
    int elapseTime(int, int) override { return 0; }
    int feedbackAlarm(Event&) override { return 0; }
    std::string getChangedModel() override { return ""; }
};

Library<BaseInterface, _BASE_EVENTINFO, Engine::Base> g_base_library;
Library<RaspInterface, _RASP_EVENTINFO, Engine::Rasp> g_rasp_library;

bool deal_alarm(Engine engine, const std::string& text) {
    record(engine, "dealAlarmEvent", nullptr, text);
    return next(script_of(engine).alarm_results, true);
}

}  // namespace

void reset_engines() {
    g_calls.clear();
    g_scripts[0] = EngineScript();
    g_scripts[1] = EngineScript();
}

EngineScript& script(Engine engine) { return script_of(engine); }

std::vector<EngineCall> engine_calls(Engine engine, const std::string& op) {
    std::vector<EngineCall> found;
    for (const auto& call : g_calls)
        if (call.engine == engine && call.op == op) found.push_back(call);
    return found;
}

std::vector<std::string> called(Engine engine, const std::string& op) {
    std::vector<std::string> names;
    for (const auto& call : engine_calls(engine, op))
        names.push_back(op == "dealAlarmEvent" ? call.text : call.input.modelName);
    return names;
}

std::vector<std::string> engine_sequence() {
    std::vector<std::string> sequence;
    for (const auto& call : g_calls) sequence.push_back((call.engine == Engine::Base ? "base:" : "rasp:") + call.op);
    return sequence;
}

}  // namespace models_double

using models_double::Engine;

BaseInterface* whitelist_base_library() { return &models_double::g_base_library; }
RaspInterface* whitelist_rasp_library() { return &models_double::g_rasp_library; }
void whitelist_base_parse_input(_USR_INPUT* input) { models_double::record(Engine::Base, "parseInput", input); }
void whitelist_rasp_parse_input(_USR_INPUT* input) { models_double::record(Engine::Rasp, "parseInput", input); }
bool whitelist_base_deal_alarm(const std::string& text) { return models_double::deal_alarm(Engine::Base, text); }
bool whitelist_rasp_deal_alarm(const std::string& text) { return models_double::deal_alarm(Engine::Rasp, text); }
