// A recording stand-in for the engines as model management sees them: their
// library objects (initModel, interactModel), parseInput and dealAlarmEvent.
// Keeps whole copies of each _USR_INPUT, process maps included.
#ifndef WL_TESTS_MODELS_MODEL_LIBRARY_DOUBLE_H
#define WL_TESTS_MODELS_MODEL_LIBRARY_DOUBLE_H

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "model_records.h"

namespace models_double {

enum class Engine { Base, Rasp };

struct EngineCall {
    Engine engine;
    std::string op;  // "initModel", "interactModel", "parseInput", "dealAlarmEvent"
    _USR_INPUT input;
    std::string text;
};

struct EngineScript {
    std::deque<bool> init_results;     // then true
    std::deque<int> interact_results;  // then 0
    std::deque<bool> alarm_results;    // then true
    // Runs inside each interactModel, before it answers.
    std::function<void(const _USR_INPUT&)> on_interact;
};

void reset_engines();
EngineScript& script(Engine engine);
std::vector<EngineCall> engine_calls(Engine engine, const std::string& op);
// "base:initModel", "rasp:parseInput", ... in call order.
std::vector<std::string> engine_sequence();
// Model names (texts, for dealAlarmEvent) of one engine's calls of one operation.
std::vector<std::string> called(Engine engine, const std::string& op);

}  // namespace models_double

#endif
