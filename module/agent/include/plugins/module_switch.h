// The agent's module switch, g_ms_conf, found by symbol at run time.
#ifndef WL_PLUGINS_MODULE_SWITCH_H
#define WL_PLUGINS_MODULE_SWITCH_H

#include <cstdint>
#include <cstring>

// Only two 16-bit words of the agent's record are read: the layout is the
// agent's contract, so they are read at their byte offsets.
constexpr std::size_t kMsSwitchingOnOffset = 12;
constexpr std::size_t kMsWhiteListOnOffset = 32;
constexpr std::size_t kMsConfMinSize = 34;

inline uint16_t ms_conf_word(const void* conf, std::size_t offset) {
    uint16_t value;
    std::memcpy(&value, static_cast<const unsigned char*>(conf) + offset, sizeof value);
    return value;
}

// The cached address of g_ms_conf; looked up until found.
const void* module_switch_conf();

#endif
