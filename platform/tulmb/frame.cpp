#include "frame.h"

#include <cstring>

#include "bus.h"

namespace tulmb {

uint32_t frame_id_hash(const char* name) {
    // ELF hash over sign-extended bytes, folding the top nibble back with an
    // arithmetic shift: the identifiers the plug-ins compute depend on it.
    uint32_t value = 0;
    for (; *name != '\0'; ++name) {
        value = (value << 4) + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*name)));
        const uint32_t top = value & 0xf0000000u;
        if (top != 0) {
            value ^= static_cast<uint32_t>(static_cast<int32_t>(top) >> 24);
        }
        value &= 0x0fffffffu;
    }
    return value;
}

const _GUID& frame_interface_id() {
    static const _GUID id = {frame_id_hash("IRtmFrame"), 0, 0, {0}};
    return id;
}

RtmFrame::RtmFrame() { Bus::instance().attachFrame(); }

RtmFrame::~RtmFrame() { Bus::instance().detachFrame(this); }

int RtmFrame::QueryInterface(const _GUID& iid, void** out) {
    if (out == nullptr) {
        return MB_E_POINTER;
    }
    if (std::memcmp(&iid, &frame_interface_id(), sizeof(_GUID)) != 0) {
        *out = nullptr;
        return MB_E_NOINTERFACE;
    }
    AddRef();
    *out = static_cast<MbFrame::IRtmFrame*>(this);
    return 0;
}

int RtmFrame::GetVersion(unsigned int* version) const {
    if (version == nullptr) {
        return MB_E_INVALIDARG;
    }
    *version = 1;
    return 0;
}

unsigned int RtmFrame::GetPluginCount() const { return Bus::instance().pluginCount(this); }

int RtmFrame::Advise(MbFrame::IPlugin* plugin, int) { return Bus::instance().advise(this, plugin); }

int RtmFrame::Unadvise(const unsigned char* plugin_id) { return Bus::instance().unadvise(this, plugin_id); }

}  // namespace tulmb
