// What the library reads from and writes about a host event record.
#ifndef BASEENG_BASE_EVENT_VIEW_H
#define BASEENG_BASE_EVENT_VIEW_H

#include <string>

#include "behaviour_model.h"
#include "event_info.h"

namespace baseeng {

// The event name of an event_type, or null for a kind the library doesn't model.
const char* baseEventName(unsigned eventType);

// The process that acted: for a process creation, the parent.
unsigned long long actingProcessId(const _BASE_EVENTINFO& event);
std::string actingProcessPath(const _BASE_EVENTINFO& event);

// "kind:subject" of the event as the model with this memory sees it, empty
// for a kind the library doesn't model. A DNS answer teaches the memory the
// names of its addresses. An alarm record made from baseAlarmJson gives the
// same key.
std::string baseFeature(const _BASE_EVENTINFO& event, ModelMemory& memory);

// The alarm, with the keys the manager's feedback list uses.
std::string baseAlarmJson(const _BASE_EVENTINFO& event);

// One origin-log element: {"message": "<event as JSON text>"}.
std::string baseOriginElement(const _BASE_EVENTINFO& event);

}  // namespace baseeng

#endif
