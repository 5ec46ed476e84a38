#define WL_LOG_SOURCE "whitelist_event"

#include "whitelist_event.h"

#include <cstring>
#include <new>

#include "mb_contract.h"
#include "wl_log.h"

namespace {
int queryEvent(MbFrame::IEvent* self, const _GUID& iid, void** out) {
    if (out == nullptr) {
        return MB_E_POINTER;
    }
    if (std::memcmp(&iid, MbFrame::IEvent::IEvent_ID, sizeof(_GUID)) == 0) {
        *out = self;
        self->AddRef();
        return 0;
    }
    *out = nullptr;
    return MB_E_NOINTERFACE;
}

std::unique_ptr<_RESPONSE_APP_REQUEST_INFO> newNativeRecord() {
    return std::unique_ptr<_RESPONSE_APP_REQUEST_INFO>(new (std::nothrow) _RESPONSE_APP_REQUEST_INFO());
}
}  // namespace

WhitelistEvent::WhitelistEvent(_RESPONSE_APP_REQUEST_INFO*& native) : m_ref(0), m_native(newNativeRecord()) {
    native = m_native.get();
}

WhitelistEvent::~WhitelistEvent() = default;

WhitelistEvent* WhitelistEvent::New(_RESPONSE_APP_REQUEST_INFO*& native) {
    native = nullptr;
    WhitelistEvent* event = new (std::nothrow) WhitelistEvent(native);
    if (event == nullptr || native == nullptr) {
        delete event;
        native = nullptr;
        WL_ORV_WARN("Create defense event Failed");
        return nullptr;
    }
    event->AddRef();
    return event;
}

int WhitelistEvent::QueryInterface(const _GUID& iid, void** out) { return queryEvent(this, iid, out); }

int WhitelistEvent::AddRef() { return orv_atomic32_add_and_fetch(&m_ref, 1); }

int WhitelistEvent::Release() {
    const int count = orv_atomic32_sub_and_fetch(&m_ref, 1);
    if (count != 0) {
        return count;
    }
    const unsigned int id = mb_event_id(*m_native);
    if ((id == kEventOriginCltJson || id == kEventActionCltType) && m_native->data != nullptr) {
        // The publisher allocated the payload as a char array.
        delete[] static_cast<char*>(m_native->data);
        m_native->data = nullptr;
    }
    delete this;
    return 0;
}

unsigned int WhitelistEvent::GetUniqueID() const { return mb_event_id(*m_native); }

bool WhitelistEvent::AsyncDroppable() const { return false; }

_RESPONSE_APP_REQUEST_INFO* WhitelistEvent::GetNativeEvent() { return m_native.get(); }

void WhitelistEvent::DumpEvent(_RESPONSE_APP_REQUEST_INFO* const& native) {
    if (native == nullptr) {
        WL_ORV_WARN("param error");
        return;
    }
    const unsigned int id = mb_event_id(*native);
    if (id == kEventOriginCltJson) {
        WL_ORV_DEBUG("Event: %u OriginCltJson: %s", id,
                     native->data != nullptr ? static_cast<const char*>(native->data) : "");
    } else if (id == kEventActionCltType) {
        WL_ORV_DEBUG("Event: %u ActionCltType: %d", id, native->sub_type);
    }
}

namespace EventTrace {

CBaseEvent::CBaseEvent(_RESPONSE_APP_REQUEST_INFO* native) : m_ref(0), m_native(native) {}

CBaseEvent::~CBaseEvent() = default;

CBaseEvent* CBaseEvent::New(_RESPONSE_APP_REQUEST_INFO*& native) {
    native = nullptr;
    std::unique_ptr<_RESPONSE_APP_REQUEST_INFO> record = newNativeRecord();
    if (!record) {
        return nullptr;
    }
    _RESPONSE_APP_REQUEST_INFO* raw = record.get();
    CBaseEvent* event = new (std::nothrow) CBaseEvent(raw);
    if (event == nullptr) {
        return nullptr;  // record freed on the way out
    }
    record.release();  // now owned by the event
    native = raw;
    event->AddRef();
    return event;
}

int CBaseEvent::QueryInterface(const _GUID& iid, void** out) { return queryEvent(this, iid, out); }

int CBaseEvent::AddRef() { return orv_atomic32_add_and_fetch(&m_ref, 1); }

int CBaseEvent::Release() {
    const int count = orv_atomic32_sub_and_fetch(&m_ref, 1);
    if (count != 0) {
        return count;
    }
    delete this;
    return 0;
}

unsigned int CBaseEvent::GetUniqueID() const { return m_native ? mb_event_id(*m_native) : 0; }

bool CBaseEvent::AsyncDroppable() const { return true; }

_RESPONSE_APP_REQUEST_INFO* CBaseEvent::GetNativeEvent() { return m_native.get(); }

_RESPONSE_APP_REQUEST_INFO* CBaseEvent::GetSendMsgData() { return m_native.get(); }

}  // namespace EventTrace
