// Bus event 1022, "collector offline", published from a small plug-in of the
// library's own, attached to the agent's message bus.
#ifndef VRCCL_OFFLINE_NOTICE_H
#define VRCCL_OFFLINE_NOTICE_H

#include <mutex>

#include "mbframe.h"

namespace vrccl {

class OfflineNotice {
public:
    OfflineNotice() = default;
    ~OfflineNotice() { detach(); }
    OfflineNotice(const OfflineNotice&) = delete;
    OfflineNotice& operator=(const OfflineNotice&) = delete;

    // Loads the bus library and advises the plug-in; false, with the reason
    // logged, when the notice cannot be sent. Attached already is success.
    bool attach();
    void detach();
    // Publishes one 1022; false when it could not be handed to the bus.
    bool publish();

private:
    class Plugin : public MbFrame::IPlugin {
    public:
        int QueryInterface(const _GUID& iid, void** out) override;
        // Lives as long as its notice, which outlasts the attachment.
        int AddRef() override { return 1; }
        int Release() override { return 1; }
        int GetUniqueID(unsigned char (*id)[16]) const override;
        int GetVersion(unsigned int* version) const override;
        int OnAdvised(MbFrame::IPluginSetting* setting, MbFrame::IDispatch* dispatch) override;
        int OnUnadvised(_UNADVISE_REASON reason) override;
        // Subscribed to nothing; a stray event is only released.
        int OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS* status) override;

        // Invokes under the lock, so the bus cannot unadvise in between.
        int invoke(MbFrame::IEvent* event);

    private:
        std::mutex m_lock;
        MbFrame::IDispatch* m_dispatch = nullptr;
    };

    std::mutex m_lock;  // attach, detach and publish
    Plugin m_plugin;
    void* m_library = nullptr;
    MbFrame::IRtmFrame* m_frame = nullptr;
};

}  // namespace vrccl

#endif
