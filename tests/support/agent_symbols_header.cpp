// get_log_ctm_header_util_v2 on its own, so that a test can go without it
// and open a library that brings it later.
#include "agent_symbols.h"

extern "C" __attribute__((visibility("default"))) int get_log_ctm_header_util_v2(log_ctm_header* header) {
    return agent_symbols::fill_header(header);
}
