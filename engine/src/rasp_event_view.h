// What the library reads from and writes about a runtime-application event.
#ifndef BASEENG_RASP_EVENT_VIEW_H
#define BASEENG_RASP_EVENT_VIEW_H

#include <string>

#include "behaviour_model.h"
#include "event_info.h"

namespace baseeng {

// The action name of an action_type, or null above the table (0 to 10).
const char* raspActionName(unsigned actionType);

// "action:subject" as the model with this memory sees it, empty for an
// action the library doesn't model. An alarm record made from raspAlarmJson
// gives the same key.
std::string raspFeature(const _RASP_EVENTINFO& event, ModelMemory& memory);

// The alarm, with the keys the manager's feedback list uses.
std::string raspAlarmJson(const _RASP_EVENTINFO& event);

// One origin-log element: {"message": "<event in the probe's JSON form>"}.
std::string raspOriginElement(const _RASP_EVENTINFO& event);

}  // namespace baseeng

#endif
