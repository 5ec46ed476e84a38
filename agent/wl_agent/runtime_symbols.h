// The symbols the module looks up in the agent process at run time.
#ifndef WL_AGENT_RUNTIME_SYMBOLS_H
#define WL_AGENT_RUNTIME_SYMBOLS_H

#include "host_identity.h"
#include "report_spool.h"

namespace wlagent {

// Must be called before the module is loaded; both objects outlive it.
void bindRuntimeSymbols(ReportSpool* spool, const HostIdentity* identity);
// The host's module switch for the white-list module (g_ms_conf).
void setModuleSwitch(bool switchingOn, bool whiteListOn);

}  // namespace wlagent

#endif
