// Symbols of the agent process, found at run time.
#ifndef WL_AGENT_SYMBOL_H
#define WL_AGENT_SYMBOL_H

#include "whitelist_upload.h"

// Looks name up into slot while slot is null and returns it. on_miss runs
// after each failed look-up, which the next call tries again.
template <typename T, typename OnMiss>
T agent_symbol(T& slot, const char* name, OnMiss on_miss) {
    if (slot == nullptr) {
        slot = reinterpret_cast<T>(dll_get_addr_ex(nullptr, name));
        if (slot == nullptr) on_miss();
    }
    return slot;
}

#endif
