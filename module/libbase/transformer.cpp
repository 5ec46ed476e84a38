#include "transformer.h"
#include "transformer_tables.h"

Transformer::Transformer() {
    static const struct {
        const char* name;
        int number;
    } kEventTypes[] = {
        {"PROCESS_CREATION", 1},
        {"FILE_CREATION", 6},
        {"FILE_MODIFICATION", 7},
        {"FILE_DELETION", 8},
        {"FILE_RENAMING", 9},
        {"FILE_TIME_MODIFICATION", 10},
        {"NETWORK_CONNECTION", 15},
        {"DNS_QUERY", 16},
        {"HOST_PORT_LISTENING", 17},
        {"LISTENING", 17},
        {"dns", 0},
        {"address", 1},
        {"execute", 2},
        {"write", 3},
        {"read", 4},
        {"delete", 5},
        {"hsql", 6},
        {"mysql", 7},
        {"oracle", 8},
        {"postgre", 9},
        {"sqlserver", 10},
    };
    static const int kEventIds[][2] = {
        {513, 1}, {518, 6}, {519, 8}, {520, 9}, {521, 7}, {526, 15}, {527, 16}, {532, 17},
    };
    for (const auto& entry : kEventTypes) eventTypeMap.insert(std::make_pair(std::string(entry.name), entry.number));
    for (const auto& entry : kEventIds) eventIdMap.insert(std::make_pair(entry[0], entry[1]));
}

const char* canonicalFileEventName(int number) {
    switch (number) {
        case WL_EVENT_FILE_CREATION: return "FILE_CREATION";
        case WL_EVENT_FILE_MODIFICATION: return "FILE_MODIFICATION";
        case WL_EVENT_FILE_DELETION: return "FILE_DELETION";
        case WL_EVENT_FILE_RENAMING: return "FILE_RENAMING";
        case WL_EVENT_FILE_TIME_MODIFICATION: return "FILE_TIME_MODIFICATION";
        default: return nullptr;
    }
}
