// The few calls that model management makes into the two engines and their
// model libraries. Kept behind plain functions so that the task and tracking
// code can be exercised with a scripted library in place of the engines.
#ifndef WL_WHITELIST_API_ENGINE_CALLS_H
#define WL_WHITELIST_API_ENGINE_CALLS_H

#include <string>

#include "base_interface.h"
#include "model_records.h"

// The library object the engine holds; null while the engine has none.
BaseInterface* whitelist_base_library();
RaspInterface* whitelist_rasp_library();

// The engines' last step of a model command: report where the model stands.
void whitelist_base_parse_input(_USR_INPUT* input);
void whitelist_rasp_parse_input(_USR_INPUT* input);

// Alarm feedback, the unformatted JSON text of an array of alarms.
bool whitelist_base_deal_alarm(const std::string& text);
bool whitelist_rasp_deal_alarm(const std::string& text);

#endif
