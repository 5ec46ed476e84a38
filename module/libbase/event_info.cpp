#include "event_info.h"

bool comp(const _BASE_EVENTINFO& left, const _BASE_EVENTINFO& right) {
    return static_cast<uint16_t>(left.event_type) < static_cast<uint16_t>(right.event_type);
}
