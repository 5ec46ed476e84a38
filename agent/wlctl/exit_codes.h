// wlctl's exit codes: one per kind of outcome, so scripts can tell a refusal
// by the module from an agent that is not there.
#ifndef WL_WLCTL_EXIT_CODES_H
#define WL_WLCTL_EXIT_CODES_H

#include <cstdint>
#include <string>

namespace wlctl {

enum Exit : int {
    kExitOk = 0,
    kExitRefused = 1,           // the module refused or failed the command (0x84ce0001)
    kExitUsage = 2,             // wlctl was called wrongly
    kExitInvalidParameter = 3,  // the module found no command in the message (0x84ce0002)
    kExitUnreachable = 4,       // no agent answered
    kExitNotFound = 5,          // no such model or alarm
    kExitForbidden = 6,         // not allowed: run as root or as the agent's user
    kExitAgentError = 7,        // the agent could not do what was asked, or answered oddly
};

// The exit code for a result code of the module's task dispatcher.
Exit exitForResult(uint32_t code);

// The table printed by --help and written in the docs.
const char* exitCodeHelp();

}  // namespace wlctl

#endif
