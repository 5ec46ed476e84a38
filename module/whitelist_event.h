// Events that the module puts on the bus. Both own their native record; a
// WhitelistEvent also owns the payload that the publisher copied into it.
#ifndef WL_WHITELIST_EVENT_H
#define WL_WHITELIST_EVENT_H

#include <memory>

#include "mbframe.h"

class WhitelistEvent : public MbFrame::IEvent {
public:
    // With one reference, and its cleared native record handed out through
    // the argument; null when memory is short.
    static WhitelistEvent* New(_RESPONSE_APP_REQUEST_INFO*& native);
    static void DumpEvent(_RESPONSE_APP_REQUEST_INFO* const& native);

    explicit WhitelistEvent(_RESPONSE_APP_REQUEST_INFO*& native);

    int QueryInterface(const _GUID& iid, void** out) override;
    int AddRef() override;
    // At zero the payload of events 19 and 20 is freed with the object.
    int Release() override;
    unsigned int GetUniqueID() const override;
    bool AsyncDroppable() const override;
    _RESPONSE_APP_REQUEST_INFO* GetNativeEvent() override;

protected:
    ~WhitelistEvent() override;

private:
    volatile int m_ref;
    std::unique_ptr<_RESPONSE_APP_REQUEST_INFO> m_native;
};

namespace EventTrace {

// A droppable event over a native record that the caller fills. Exported for
// other plug-ins; the module itself doesn't publish it.
class CBaseEvent : public MbFrame::IEvent {
public:
    static CBaseEvent* New(_RESPONSE_APP_REQUEST_INFO*& native);

    explicit CBaseEvent(_RESPONSE_APP_REQUEST_INFO* native);

    int QueryInterface(const _GUID& iid, void** out) override;
    int AddRef() override;
    int Release() override;
    unsigned int GetUniqueID() const override;
    bool AsyncDroppable() const override;
    _RESPONSE_APP_REQUEST_INFO* GetNativeEvent() override;
    _RESPONSE_APP_REQUEST_INFO* GetSendMsgData();

protected:
    ~CBaseEvent() override;

private:
    volatile int m_ref;
    std::unique_ptr<_RESPONSE_APP_REQUEST_INFO> m_native;
};

}  // namespace EventTrace

#endif
