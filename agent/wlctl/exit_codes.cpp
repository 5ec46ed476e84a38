#include "exit_codes.h"

#include "kem_result.h"

namespace wlctl {

Exit exitForResult(uint32_t code) {
    switch (code) {
        case 0: return kExitOk;
        case KEM_E_FAIL: return kExitRefused;
        case KEM_E_INVALIDARG: return kExitInvalidParameter;
        default: return kExitAgentError;
    }
}

const char* exitCodeHelp() {
    return "Exit codes:\n"
           "  0  done\n"
           "  1  the module refused or failed the command (result 0x84ce0001)\n"
           "  2  wrong use of wlctl (see above)\n"
           "  3  the module found no command in the message (result 0x84ce0002)\n"
           "  4  no agent answered (not running, another --root, or too slow)\n"
           "  5  no such model or alarm\n"
           "  6  not allowed: run as root or as the agent's user\n"
           "  7  the agent could not do what was asked, or answered with an unknown result\n";
}

}  // namespace wlctl
