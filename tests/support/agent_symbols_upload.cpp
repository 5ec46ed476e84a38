// _upload2mgr on its own, so that a test can go without it and open a
// library that brings it later.
#include "agent_symbols.h"

extern "C" __attribute__((visibility("default"))) int _upload2mgr(int channel, const char* text, int length, int mode) {
    return agent_symbols::record_upload(channel, text, length, mode);
}
