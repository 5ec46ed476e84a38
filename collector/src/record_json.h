// The JSON-lines form of records: what --record writes and --replay reads.
// docs/collector.md shows a line of each kind.
#ifndef WLC_RECORD_JSON_H
#define WLC_RECORD_JSON_H

#include <string>

#include "action_record.h"

namespace wlc {

// One line, without the line break.
std::string recordToJson(const ActionRecord& record);
// False with a reason when the line is not a record: not JSON, an unknown
// sub_type, an event name that contradicts it, a field of the wrong type.
bool recordFromJson(const std::string& line, ActionRecord& record, std::string& error);

}  // namespace wlc

#endif
