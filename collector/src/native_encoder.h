// Lays an action record out as the native record the module reads.
#ifndef WLC_NATIVE_ENCODER_H
#define WLC_NATIVE_ENCODER_H

#include <cstdint>
#include <vector>

#include "action_record.h"

namespace wlc {

// The record's bytes (process_event_info, file_event_info or
// net_event_info, by kind); every text cut to its room with a terminator.
std::vector<uint8_t> encodeNative(const ActionRecord& record);

}  // namespace wlc

#endif
