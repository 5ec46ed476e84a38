#include "model_library_double.h"

#include "whitelist_api_engine_calls.h"

using fake_model::Call;
using fake_model::Library;

namespace models_double {
namespace {

// Made once: the engines hold their library objects for the whole run.
BaseInterface* const g_base_library = BaseFactory().getBaseInterface();
RaspInterface* const g_rasp_library = RaspFactory().getRaspInterface();

void note(Engine engine, const char* op, const std::string& text) { Library::instance().note(Call(engine, op, text)); }

bool deal_alarm(Engine engine, const std::string& text) {
    note(engine, "dealAlarmEvent", text);
    return Library::instance().takeResult(engine, "dealAlarmEvent", 1) != 0;
}

}  // namespace

void reset_engines() { Library::instance().reset(); }

void queue_results(Engine engine, const std::string& op, std::initializer_list<int> results) {
    for (int result : results) Library::instance().queueResult(engine, op, result);
}

std::vector<Call> engine_calls(Engine engine, const std::string& op) { return Library::instance().calls(engine, op); }

std::vector<std::string> engine_sequence() { return Library::instance().opSequence(); }

std::vector<std::string> called(Engine engine, const std::string& op) {
    std::vector<std::string> names;
    for (const auto& call : engine_calls(engine, op)) names.push_back(call.text);
    return names;
}

}  // namespace models_double

using models_double::Engine;

BaseInterface* whitelist_base_library() { return models_double::g_base_library; }
RaspInterface* whitelist_rasp_library() { return models_double::g_rasp_library; }
void whitelist_base_parse_input(_USR_INPUT* input) {
    models_double::note(Engine::Base, "parseInput", input->modelName);
}
void whitelist_rasp_parse_input(_USR_INPUT* input) {
    models_double::note(Engine::Rasp, "parseInput", input->modelName);
}
bool whitelist_base_deal_alarm(const std::string& text) { return models_double::deal_alarm(Engine::Base, text); }
bool whitelist_rasp_deal_alarm(const std::string& text) { return models_double::deal_alarm(Engine::Rasp, text); }
