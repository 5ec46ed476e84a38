#include "transformer.h"

#include "transformer_tables.h"

Transformer::Transformer() {
    static const struct {
        const char* name;
        int number;
    } kEventTypes[] = {
        {"PROCESS_CREATION", WL_EVENT_PROCESS_CREATION},
        {"FILE_CREATION", WL_EVENT_FILE_CREATION},
        {"FILE_MODIFICATION", WL_EVENT_FILE_MODIFICATION},
        {"FILE_DELETION", WL_EVENT_FILE_DELETION},
        {"FILE_RENAMING", WL_EVENT_FILE_RENAMING},
        {"FILE_TIME_MODIFICATION", WL_EVENT_FILE_TIME_MODIFICATION},
        {"NETWORK_CONNECTION", WL_EVENT_NETWORK_CONNECTION},
        {"DNS_QUERY", WL_EVENT_DNS_QUERY},
        {"HOST_PORT_LISTENING", WL_EVENT_PORT_LISTENING},
        {"LISTENING", WL_EVENT_PORT_LISTENING},
        {"dns", WL_ACTION_DNS},
        {"address", WL_ACTION_ADDRESS},
        {"execute", WL_ACTION_EXECUTE},
        {"write", WL_ACTION_WRITE},
        {"read", WL_ACTION_READ},
        {"delete", WL_ACTION_DELETE},
        {"hsql", WL_ACTION_HSQL},
        {"mysql", WL_ACTION_MYSQL},
        {"oracle", WL_ACTION_ORACLE},
        {"postgre", WL_ACTION_POSTGRE},
        {"sqlserver", WL_ACTION_SQLSERVER},
    };
    static const int kEventIds[][2] = {
        {513, WL_EVENT_PROCESS_CREATION}, {518, WL_EVENT_FILE_CREATION},     {519, WL_EVENT_FILE_DELETION},
        {520, WL_EVENT_FILE_RENAMING},    {521, WL_EVENT_FILE_MODIFICATION}, {526, WL_EVENT_NETWORK_CONNECTION},
        {527, WL_EVENT_DNS_QUERY},        {532, WL_EVENT_PORT_LISTENING},
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
