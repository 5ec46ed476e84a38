#include "frame.h"

#include <cstring>

#include "bus.h"

namespace tulmb {

const _GUID& frame_interface_id() {
    static const _GUID id = {interface_id_hash("IRtmFrame"), 0, 0, {0}};
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
