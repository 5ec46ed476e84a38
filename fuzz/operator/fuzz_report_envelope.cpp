// Any bytes as a report envelope, then every view of the ledger over it.
#include <cjson/cJSON.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "report_ledger.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static wlagent::ReportLedger* ledger = [] {
        wlagent::LedgerLimits limits;
        limits.maxAlarms = 64;
        limits.maxModels = 64;
        limits.maxModelDataBytes = 1 << 16;
        return new wlagent::ReportLedger(limits);
    }();
    std::string text(reinterpret_cast<const char*>(data), size);
    ledger->record(text, 1);
    ledger->recordLost(text);
    for (cJSON* view : {ledger->reportsJson(), ledger->modelsJson(true), ledger->alarmsJson(wlagent::AlarmFilter()),
                        ledger->alarmJson("1"), ledger->modelJson("", "m")}) {
        cJSON_Delete(view);
    }
    return 0;
}
