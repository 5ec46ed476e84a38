// How each kind of host event is named and published.
#ifndef WLC_EVENT_KIND_H
#define WLC_EVENT_KIND_H

#include <cstdint>
#include <optional>
#include <string>

#include "host_event.h"

namespace wlc {

// The event name the native record carries, e.g. "FILE_CREATION".
const char* eventName(EventKind kind);
// The action type the record is published with (enum action_sub_type).
uint32_t subTypeOf(EventKind kind);
// The reported kind of a sub_type; nothing for an unknown one.
std::optional<EventKind> kindOfSubType(uint32_t subType);

enum class RecordShape { Process, File, Net };
RecordShape shapeOf(EventKind kind);

}  // namespace wlc

#endif
