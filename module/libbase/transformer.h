// Everything that turns outside events into the records of event_info.h:
// native collector records, origin-log JSON, runtime-application telemetry and
// alarm lists, plus the local-address filters applied before the model library.
#ifndef WL_TRANSFORMER_H
#define WL_TRANSFORMER_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <rapidjson/fwd.h>

#include "event_info.h"

class Transformer {
public:
    Transformer();

    // Local-address filters: true means drop the event.
    bool filterBaseEvent(_BASE_EVENTINFO& event, std::set<std::string>& localIps);
    bool filterRaspEvent(_RASP_EVENTINFO& event, std::set<std::string>& localIps);

    // Native collector records. The record must be all zero on entry, and the
    // native record at least kNativeRecordMaxSize bytes long.
    bool TransformProcessMsg(const process_event_info& native, _BASE_EVENTINFO& event);
    bool TransformFileMsg(const file_event_info& native, _BASE_EVENTINFO& event);
    bool TransformNetEvent(const net_event_info& native, _BASE_EVENTINFO& event);
    void TransformDnsEvent(const net_event_info& native, _BASE_EVENTINFO& event);
    void TransformPortEvent(const net_event_info& native, _BASE_EVENTINFO& event);
    void TransformConnectEvent(const net_event_info& native, _BASE_EVENTINFO& event);

    // Origin log: a JSON array of {"message": "<event object as text>"}.
    // Appends the kept records, sorted by event_type.
    bool judgeEventType(std::string originLog, std::vector<_BASE_EVENTINFO>& events);
    bool TransformEvent(rapidjson::Document* doc, _BASE_EVENTINFO& event);
    bool TransformProcessMsg(rapidjson::Document* doc, _BASE_PROCESSES_INFO& process);
    void TransformFileMsg(rapidjson::Document* doc, _BASE_FILES_INFO& file);

    // Runtime-application telemetry: construct, initRaspInfo, judgeEventType.
    void initRaspInfo(_RASP_EVENTINFO& event);
    bool judgeEventType(std::string originLog, _RASP_EVENTINFO& event);
    bool TransformEvent(rapidjson::Document* doc, _RASP_EVENTINFO& event);
    void TransRaspCommonMsg(rapidjson::Document* doc, _RASP_EVENTINFO& event);

    // Alarm feedback lists. False when an element lacked its kind or model
    // name; the records made before it stay in events.
    bool judgeAlarmEventType(std::string text, std::vector<_BASE_EVENTINFO>& events);
    bool judgeAlarmEventType(std::string text, std::vector<_RASP_EVENTINFO>& events);
    bool TransformAlarmEvent(rapidjson::Value* alarm, _BASE_EVENTINFO& event);
    bool TransformAlarmEvent(rapidjson::Value* alarm, _RASP_EVENTINFO& event);
    bool TransformAlarmFileEvent(rapidjson::Value* alarm, _BASE_EVENTINFO& event);
    bool TransformAlarmProcessMsg(rapidjson::Value* alarm, _BASE_PROCESSES_INFO& process);

    // Event and action names to numbers (21 entries); read-only after construction.
    std::map<std::string, int> eventTypeMap;
    // Numeric event ids to event numbers (8 entries); kept, read by nothing.
    std::map<int, int> eventIdMap;
};

// Assigns text to target unless text is empty.
void getJsonValue(std::string& target, std::string text);
// Number of a JSON integer, or of the text after the last colon of a string.
uint64_t getJsonInt(const rapidjson::Value* value);
// Text of a JSON string, or "%ld" of the low 32 bits of a JSON integer.
std::string getJsonString(const rapidjson::Value* value);
// Compact JSON text of any value.
std::string jsonToString(const rapidjson::Value& value);
// One byte per wide element: its low 8 bits.
std::string wcharToString(const wchar_t* text);
// One sign-extended wide element per byte; a full field keeps its last element.
void stringToWchart(wchar_t* target, int capacity, std::string text);
// Host part of an address or URL; throws std::out_of_range on a lone trailing slash.
std::string spiltDnsIp(std::string text);

#endif
