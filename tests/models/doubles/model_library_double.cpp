#include "model_library_double.h"

#include "whitelist_api_engine_calls.h"

namespace models_double {
namespace {

std::vector<EngineCall> g_calls;
EngineScript g_scripts[2];

EngineScript& script_of(Engine engine) { return g_scripts[engine == Engine::Base ? 0 : 1]; }

void record(Engine engine, const char* op, const _USR_INPUT* input, const std::string& text = "") {
    EngineCall call{engine, op, input ? *input : _USR_INPUT(), text};
    g_calls.push_back(call);
}

template <typename T>
T next(std::deque<T>& queue, T fallback) {
    if (queue.empty()) return fallback;
    T value = queue.front();
    queue.pop_front();
    return value;
}

// Only the two operations model management uses do anything.
class BaseLibrary : public BaseInterface {
public:
    int setConfig(const char*) override { return 0; }
    int loadModel(const char*) override { return 0; }
    int saveModel(const char*) override { return 0; }
    std::string getModelData(std::string) override { return "{}"; }
    bool initModel(_USR_INPUT* input) override {
        record(Engine::Base, "initModel", input);
        return next(script_of(Engine::Base).init_results, true);
    }
    int processEvent(_BASE_EVENTINFO&) override { return 0; }
    std::string getBlackLog(_BASE_EVENTINFO&, int) override { return ""; }
    int saveOriginLog(_BASE_EVENTINFO&, const char*) override { return 0; }
    int interactModel(_USR_INPUT* input) override {
        record(Engine::Base, "interactModel", input);
        if (script_of(Engine::Base).on_interact) script_of(Engine::Base).on_interact(*input);
        return next(script_of(Engine::Base).interact_results, 0);
    }
    std::string getModelStatus(std::string) override { return "{}"; }
    int elapseTime(int, int) override { return 0; }
    int feedbackAlarm(_BASE_EVENTINFO&) override { return 0; }
    std::string getChangedModel() override { return ""; }
};

class RaspLibrary : public RaspInterface {
public:
    int setConfig(const char*) override { return 0; }
    int loadModel(const char*) override { return 0; }
    int saveModel(const char*) override { return 0; }
    bool initModel(_USR_INPUT* input) override {
        record(Engine::Rasp, "initModel", input);
        return next(script_of(Engine::Rasp).init_results, true);
    }
    int processEvent(_RASP_EVENTINFO&) override { return 0; }
    int interactModel(_USR_INPUT* input) override {
        record(Engine::Rasp, "interactModel", input);
        if (script_of(Engine::Rasp).on_interact) script_of(Engine::Rasp).on_interact(*input);
        return next(script_of(Engine::Rasp).interact_results, 0);
    }
    int elapseTime(int, int) override { return 0; }
    std::string getModelStatus(std::string) override { return "{}"; }
    std::string getBlackLog(_RASP_EVENTINFO&, int) override { return ""; }
    std::string getModelData(std::string) override { return "{}"; }
    int saveOriginLog(_RASP_EVENTINFO&, const char*) override { return 0; }
    int feedbackAlarm(_RASP_EVENTINFO&) override { return 0; }
    std::string getChangedModel() override { return ""; }
};

BaseLibrary g_base_library;
RaspLibrary g_rasp_library;

}  // namespace

void reset_engines() {
    g_calls.clear();
    g_scripts[0] = EngineScript();
    g_scripts[1] = EngineScript();
}

EngineScript& script(Engine engine) { return script_of(engine); }

const std::vector<EngineCall>& engine_calls() { return g_calls; }

std::vector<EngineCall> engine_calls(Engine engine, const std::string& op) {
    std::vector<EngineCall> found;
    for (const auto& call : g_calls)
        if (call.engine == engine && call.op == op) found.push_back(call);
    return found;
}

std::vector<std::string> engine_sequence() {
    std::vector<std::string> sequence;
    for (const auto& call : g_calls) sequence.push_back((call.engine == Engine::Base ? "base:" : "rasp:") + call.op);
    return sequence;
}

}  // namespace models_double

using models_double::Engine;

BaseInterface* whitelist_base_library() {
    return models_double::script(Engine::Base).library_missing ? nullptr : &models_double::g_base_library;
}

RaspInterface* whitelist_rasp_library() {
    return models_double::script(Engine::Rasp).library_missing ? nullptr : &models_double::g_rasp_library;
}

void whitelist_base_parse_input(_USR_INPUT* input) { models_double::record(Engine::Base, "parseInput", input); }

void whitelist_rasp_parse_input(_USR_INPUT* input) { models_double::record(Engine::Rasp, "parseInput", input); }

bool whitelist_base_deal_alarm(const std::string& text) {
    models_double::record(Engine::Base, "dealAlarmEvent", nullptr, text);
    return models_double::next(models_double::script(Engine::Base).alarm_results, true);
}

bool whitelist_rasp_deal_alarm(const std::string& text) {
    models_double::record(Engine::Rasp, "dealAlarmEvent", nullptr, text);
    return models_double::next(models_double::script(Engine::Rasp).alarm_results, true);
}
