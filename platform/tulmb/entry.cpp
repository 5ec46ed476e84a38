// The library's exported entry points.
#include <cstring>
#include <exception>
#include <new>

#pragma GCC visibility push(default)
#include "tulmb_counters.h"
#pragma GCC visibility pop

#include "bus.h"
#include "bus_counters.h"
#include "frame.h"
#include "text_out.h"

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

// For the operator's tools: see tulmb_counters.h.
extern "C" __attribute__((visibility("default"))) int tulmb_counters_json(char* out, int size) {
    try {
        return wlsock::text_out(tulmb::Bus::instance().countersJson(), out, size);
    } catch (const std::exception&) {
        return -1;  // no memory for the text
    }
}
