// The engines as model management calls them: their library objects are the
// recording fake of tests/fakes; parseInput and dealAlarmEvent are noted in
// the same record, and dealAlarmEvent answers the queued result, then true.
#ifndef WL_TESTS_MODELS_MODEL_LIBRARY_DOUBLE_H
#define WL_TESTS_MODELS_MODEL_LIBRARY_DOUBLE_H

#include <initializer_list>
#include <string>
#include <vector>

#include "fake_model_library.h"

namespace models_double {

using fake_model::Engine;

void reset_engines();
// Results of op in call order ("initModel": 0/1, "interactModel", "dealAlarmEvent": 0/1).
void queue_results(Engine engine, const std::string& op, std::initializer_list<int> results);
std::vector<fake_model::Call> engine_calls(Engine engine, const std::string& op);
// "base:initModel", "rasp:parseInput", ... in call order.
std::vector<std::string> engine_sequence();
// Model names (texts, for dealAlarmEvent) of one engine's calls of one operation.
std::vector<std::string> called(Engine engine, const std::string& op);

}  // namespace models_double

#endif
