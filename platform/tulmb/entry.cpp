// The library's exported entry points.
#include <cstring>
#include <new>

#include "bus.h"
#include "frame.h"

extern "C" __attribute__((visibility("default"))) int DllGetClassObject(const _GUID& clsid, const _GUID& iid,
                                                                         void** out) {
    if (out == nullptr) {
        return MB_E_POINTER;
    }
    *out = nullptr;
    static const _GUID kNull = {0, 0, 0, {0}};
    if (std::memcmp(&clsid, &kNull, sizeof(_GUID)) != 0) {
        return MB_E_INVALIDARG;  // one class only: the frame
    }
    if (std::memcmp(&iid, &tulmb::frame_interface_id(), sizeof(_GUID)) != 0) {
        return MB_E_NOINTERFACE;
    }
    tulmb::RtmFrame* frame = new (std::nothrow) tulmb::RtmFrame();  // deleted by its last Release
    if (frame == nullptr) {
        return MB_E_FAIL;
    }
    frame->AddRef();
    *out = static_cast<MbFrame::IRtmFrame*>(frame);
    return 0;
}

// Test hook: non-zero delivers on the publisher's thread inside Invoke.
extern "C" __attribute__((visibility("default"))) void tulmb_set_synchronous(int on) {
    tulmb::Bus::instance().setSynchronous(on != 0);
}
