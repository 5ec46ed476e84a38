/* SDK of the agent's message bus: reference-counted objects, interfaces with
 * identifiers, plug-ins attached to a frame, events delivered by numeric ID.
 * The order of the virtual functions is the binary contract between the bus
 * library and its plug-ins: do not reorder, insert or remove any. */
#ifndef MBFRAME_H
#define MBFRAME_H

#include "kem_result.h"

#include <stddef.h>
#include <stdint.h>

#include "orv_sync.h"

/* Result codes of the bus contract. */
#define MB_S_OK 0
#define MB_E_FAIL ((int)KEM_E_FAIL)
#define MB_E_INVALIDARG ((int)KEM_E_INVALIDARG)
#define MB_E_QUEUE_FULL ((int)KEM_E_QUEUE_FULL)
#define MB_E_PLUGIN_NOINTERFACE ((int)KEM_E_NOINTERFACE)
#define MB_E_NOINTERFACE ((int)0x80004002u)
#define MB_E_POINTER ((int)0x80004003u)

/* 16 bytes, compared as 16 bytes. */
struct _GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};
static_assert(sizeof(_GUID) == 16, "_GUID is 16 bytes");

// ELF hash with sign-extended bytes and an arithmetic shift of the top bits:
// interface identifiers are derived from the interface's short name this
// way, so for names whose hash sets the top bit this must not be "fixed" into
// the published ELF hash.
constexpr uint32_t interface_id_hash(const char* name) {
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

/* One subscription of a plug-in: the bus event ID and the bus's flag. */
struct event_subscription {
    uint32_t event_id;
    uint32_t flag;
};
static_assert(sizeof(event_subscription) == 8, "event_subscription is two 32-bit words");

/* The native event record. Bits 0-9 of event_id are the bus event ID; bits
 * 10-15 belong to the bus and are kept when the ID is written. */
struct _RESPONSE_APP_REQUEST_INFO {
    uint16_t header;
    uint16_t event_id;
    uint8_t reserved[8];
    void* data;
    int32_t sub_type;
};
#if defined(__i386__)
static_assert(sizeof(_RESPONSE_APP_REQUEST_INFO) == 20, "native event record is 20 bytes with 32-bit pointers");
static_assert(offsetof(_RESPONSE_APP_REQUEST_INFO, data) == 12, "data at byte 12");
static_assert(offsetof(_RESPONSE_APP_REQUEST_INFO, sub_type) == 16, "sub_type at byte 16");
#endif
static_assert(offsetof(_RESPONSE_APP_REQUEST_INFO, event_id) == 2, "event_id at byte 2");

#define MB_EVENT_ID_MASK 0x3ffu

/* What the bus tells a subscriber about a delivery; subscribers may ignore it. */
struct _RESPONSE_STATUS {
    int32_t status;
    uint32_t sequence;
};

enum _UNADVISE_REASON {
    UNADVISE_BY_PLUGIN = 0,
    UNADVISE_BY_FRAME_RELEASE = 1,
};

/* Base of counted objects. The count starts at 0; Release at zero deletes the
 * object through its virtual destructor. */
class IUnknown {
public:
    virtual int QueryInterface(const _GUID& iid, void** out) = 0;               /* 1 */
    virtual int AddRef() { return orv_atomic32_add_and_fetch(&m_refCount, 1); } /* 2 */
    virtual int Release() {                                                     /* 3 */
        int count = orv_atomic32_sub_and_fetch(&m_refCount, 1);
        if (count == 0) {
            delete this;
        }
        return count;
    }
    virtual ~IUnknown() {} /* 4, 5 */

protected:
    volatile int m_refCount = 0;
};

namespace MbFrame {

class IEvent : public IUnknown {
public:
    static const _GUID* IEvent_ID;

    virtual unsigned int GetUniqueID() const = 0;             /* 6: low 10 bits of event_id */
    virtual bool AsyncDroppable() const = 0;                  /* 7 */
    virtual _RESPONSE_APP_REQUEST_INFO* GetNativeEvent() = 0; /* 8 */
};

/* Not counted: owned by the frame for as long as the plug-in is advised. */
class IPluginSetting {
public:
    virtual int GetPluginID(unsigned char (*id)[16]) const = 0;                            /* 1 */
    virtual int UnregisterEvents(const event_subscription* table, unsigned int count) = 0; /* 2 */
    virtual int RegisterEvents(const event_subscription* table, unsigned int count) = 0;   /* 3 */

protected:
    ~IPluginSetting() {}
};

/* Not counted: owned by the frame. Invoke delivers to every plug-in
 * subscribed to the event's ID; negative on failure. */
class IDispatch {
public:
    virtual int Invoke(IEvent* event) = 0; /* 1 */

protected:
    ~IDispatch() {}
};

class IPlugin : public IUnknown {
public:
    virtual int GetUniqueID(unsigned char (*id)[16]) const = 0;              /* 6 */
    virtual int GetVersion(unsigned int* version) const = 0;                 /* 7 */
    virtual int OnAdvised(IPluginSetting* setting, IDispatch* dispatch) = 0; /* 8 */
    virtual int OnUnadvised(_UNADVISE_REASON reason) = 0;                    /* 9 */
    virtual int OnEvent(IEvent* event, _RESPONSE_STATUS* status) = 0;        /* 10 */
};

class IRtmFrame : public IUnknown {
public:
    static const _GUID* IRtmFrame_ID;

    virtual int GetVersion(unsigned int* version) const = 0;  /* 6 */
    virtual unsigned int GetPluginCount() const = 0;          /* 7 */
    virtual int Advise(IPlugin* plugin, int flag) = 0;        /* 8 */
    virtual int Unadvise(const unsigned char* plugin_id) = 0; /* 9: the plug-in's 16 bytes */
};

}  // namespace MbFrame

/* The bus library's one entry: a new frame with one reference for the caller. */
typedef int (*DllGetClassObject_fn)(const _GUID& clsid, const _GUID& iid, void** out);

#endif
