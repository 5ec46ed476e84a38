// Records with sensible defaults, for the tests that feed the conversions,
// the bus and the engines: host and runtime-application records as a
// conversion starts them, a telemetry line, and native collector records.
// Header-only: include it where the transformer area is linked.
#ifndef WL_TEST_EVENT_RECORDS_H
#define WL_TEST_EVENT_RECORDS_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "action_records.h"
#include "event_info.h"
#include "transformer.h"
#include "vrccl_action.h"

// A cleared host record (too large for comfort on a stack) of an event
// number, with a tag in event_time that tells records apart.
inline std::unique_ptr<_BASE_EVENTINFO> baseRecord(int eventType = 0, unsigned long long tag = 0) {
    auto record = std::make_unique<_BASE_EVENTINFO>();
    record->event_type = static_cast<uint16_t>(eventType);
    record->event_time = tag;
    return record;
}

// A runtime-application record with the conversion's defaults.
inline _RASP_EVENTINFO raspRecord() {
    _RASP_EVENTINFO record;
    Transformer().initRaspInfo(record);
    return record;
}

// A telemetry line as the probe writes it: the request's members (JSON
// members without braces, may be empty) around the action object.
inline std::string telemetryLine(const std::string& request, const std::string& action) {
    return "{\"pid\":4242,\"time\":1700000000,\"data\":{" + request + (request.empty() ? "" : ",") +
           "\"data\":" + action + "}}";
}

namespace event_records_detail {
template <typename Record>
std::vector<unsigned char> nativeRecord(const char* eventName, Record*& record) {
    std::vector<unsigned char> bytes(sizeof(Record), 0);
    record = reinterpret_cast<Record*>(bytes.data());
    std::strncpy(record->event_name, eventName, sizeof(record->event_name) - 1);
    record->event_time = 1700000000123ull;
    return bytes;
}
}  // namespace event_records_detail

// Native records as the collector sends them, zero-filled.
inline std::vector<unsigned char> processRecord(const char* eventName, int32_t pid, const char* path) {
    process_event_info* record = nullptr;
    std::vector<unsigned char> bytes = event_records_detail::nativeRecord(eventName, record);
    record->process_id = pid;
    std::strncpy(record->process_path, path, sizeof(record->process_path) - 1);
    return bytes;
}

inline std::vector<unsigned char> fileRecord(const char* eventName, const char* filePath) {
    file_event_info* record = nullptr;
    std::vector<unsigned char> bytes = event_records_detail::nativeRecord(eventName, record);
    std::strncpy(record->file_path, filePath, sizeof(record->file_path) - 1);
    return bytes;
}

// A collector message around a payload, as action_collector_msg lays it out.
inline std::vector<unsigned char> collectorMessage(int type, const std::vector<unsigned char>& payload) {
    const std::size_t head = offsetof(action_collector_msg, payload);
    std::vector<unsigned char> bytes(head + payload.size() + 1, 0);
    action_collector_msg* msg = reinterpret_cast<action_collector_msg*>(bytes.data());
    msg->type = type;
    msg->size = static_cast<uint32_t>(payload.size());
    std::copy(payload.begin(), payload.end(), bytes.begin() + static_cast<std::ptrdiff_t>(head));
    return bytes;
}

#endif
