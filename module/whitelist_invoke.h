// The bus plug-in that publishes the module's two data streams: telemetry
// texts as event 19 and collector records as event 20.
#ifndef WL_WHITELIST_INVOKE_H
#define WL_WHITELIST_INVOKE_H

#include "mbframe.h"
#include "orv_sync.h"

// Publish_t types.
enum { WL_PUBLISH_ORIGIN_JSON = 1, WL_PUBLISH_ACTION = 2 };

class WhitelistInvoke : public MbFrame::IPlugin {
public:
    static WhitelistInvoke* GetInstance();

    // False when the bus library is installed but can't be attached.
    bool Initialize();
    void UnInitialize();

    // Copies data into a new event and invokes it; never reports to the caller.
    void Publish_t(int type, int sub_type, void* data, unsigned int size);
    // Callback form: user is the WhitelistInvoke.
    static void Publish(int type, int sub_type, void* data, unsigned int size, void* user);
    bool Transform(int type, int sub_type, void* data, unsigned int size, _RESPONSE_APP_REQUEST_INFO& native);

    int QueryInterface(const _GUID& iid, void** out) override;
    int AddRef() override;
    int Release() override;
    int GetUniqueID(unsigned char (*id)[16]) const override;
    int GetVersion(unsigned int* version) const override;
    int OnAdvised(MbFrame::IPluginSetting* setting, MbFrame::IDispatch* dispatch) override;
    int OnUnadvised(_UNADVISE_REASON reason) override;
    int OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS* status) override;

private:
    WhitelistInvoke();
    ~WhitelistInvoke() override;
    WhitelistInvoke(const WhitelistInvoke&) = delete;
    WhitelistInvoke& operator=(const WhitelistInvoke&) = delete;

    MbFrame::IDispatch* m_dispatch;
    orv_mutex_t m_lock;
    void* m_dll;
    MbFrame::IRtmFrame* m_frame;
};

extern WhitelistInvoke* wlist_invoke;

#endif
