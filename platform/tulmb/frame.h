// A frame: one plug-in host's handle on the process-wide bus. Each DllGetClassObject
// call makes a new one; all of them share the same bus.
#ifndef TULMB_FRAME_H
#define TULMB_FRAME_H

#include "mbframe.h"

namespace tulmb {

// The identifier that DllGetClassObject accepts, derived from "IRtmFrame".
const _GUID& frame_interface_id();

class RtmFrame final : public MbFrame::IRtmFrame {
public:
    RtmFrame();

    int QueryInterface(const _GUID& iid, void** out) override;
    int GetVersion(unsigned int* version) const override;
    unsigned int GetPluginCount() const override;
    int Advise(MbFrame::IPlugin* plugin, int flag) override;
    int Unadvise(const unsigned char* plugin_id) override;

private:
    ~RtmFrame() override;  // through Release only
};

}  // namespace tulmb

#endif
