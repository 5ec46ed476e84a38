// The module's side of the bus contract: identifiers, the subscription table,
// the plug-in ids, and attaching a plug-in to a frame of the bus library.
#ifndef WL_MB_CONTRACT_H
#define WL_MB_CONTRACT_H

#include <cstdint>
#include <string>

#include "mbframe.h"
#include "orv_lock_guard.h"
#include "orv_sync.h"

extern _GUID CLSID_NULL;
extern event_subscription b_RegisterEvent[3];
constexpr unsigned int kRegisterEventCount = 3;

constexpr unsigned int kEventOriginCltJson = 19;
constexpr unsigned int kEventActionCltType = 20;
constexpr unsigned int kEventCollectorOffline = 1022;

extern const unsigned char g_registerPluginId[16];
extern const unsigned char g_whitelistInvokePluginId[16];

// GetUniqueID and GetVersion of the module's plug-ins: 0x84ce0002 for a null
// pointer, with nothing written.
int mb_copy_plugin_id(const unsigned char (&source)[16], unsigned char (*id)[16]);
int mb_plugin_version(unsigned int* version);

// Writes the bus event ID into bits 0-9, keeping the bus's bits 10-15.
inline void mb_set_event_id(_RESPONSE_APP_REQUEST_INFO& native, unsigned int id) {
    native.event_id = static_cast<uint16_t>((native.event_id & ~MB_EVENT_ID_MASK) | (id & MB_EVENT_ID_MASK));
}
inline unsigned int mb_event_id(const _RESPONSE_APP_REQUEST_INFO& native) { return native.event_id & MB_EVENT_ID_MASK; }

// Which step of attaching stopped; each plug-in logs it in its own form.
enum mb_attach_result {
    MB_ATTACH_DONE,  // attached now, or already
    MB_ATTACH_LITE,  // no bus library installed: stays unattached
    MB_ATTACH_OPEN_FAILED,
    MB_ATTACH_GET_ADDR_FAILED,
    MB_ATTACH_GET_OBJECT_FAILED,
    MB_ATTACH_ADVISE_FAILED,
};

// On a failure after the library was opened, the attachment is detached again.
// code receives the failing call's result, path the library's path.
mb_attach_result mb_attach(MbFrame::IPlugin* plugin, void*& dll, MbFrame::IRtmFrame*& frame, int& code,
                           std::string& path);
void mb_detach(const unsigned char* plugin_id, void*& dll, MbFrame::IRtmFrame*& frame);

#endif
