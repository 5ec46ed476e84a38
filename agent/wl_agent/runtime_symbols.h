// The symbols the module looks up in the agent process at run time.
#ifndef WL_AGENT_RUNTIME_SYMBOLS_H
#define WL_AGENT_RUNTIME_SYMBOLS_H

#include <cstdint>

#include "host_identity.h"
#include "report_ledger.h"
#include "report_spool.h"

namespace wlagent {

// Must be called before the module is loaded; both objects outlive it.
void bindRuntimeSymbols(ReportSpool* spool, const HostIdentity* identity);
// Every envelope the module uploads is also shown to the ledger.
void bindReportLedger(ReportLedger* ledger);
// Report ids (the envelopes' seq_id) stay unique across restarts: they count
// on from the wall clock in microseconds, or from above the highest id seen in
// the spool if that is later (a clock set back). Returns the first id.
uint64_t startSequence(uint64_t highestSeen);
// Whether the host's switches leave the white-list module on.
bool moduleSwitchOn();
// The host's module switch for the white-list module (g_ms_conf).
void setModuleSwitch(bool switchingOn, bool whiteListOn);

}  // namespace wlagent

#endif
