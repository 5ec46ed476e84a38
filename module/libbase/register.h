// The bus plug-in that receives events 19, 20 and 1022 and feeds the engines'
// queues with them.
#ifndef WL_REGISTER_H
#define WL_REGISTER_H

#include <atomic>

#include "mbframe.h"
#include "transformer.h"

// The action types (the bus's sub_type) that can be routed: type t selects bit
// t - kFirstRoutedActionType of the routing masks.
constexpr int kFirstRoutedActionType = ACTION_FILE_CREATION;
constexpr int kLastRoutedActionType = kFirstRoutedActionType + 31;

class Register : public MbFrame::IPlugin {
public:
    static Register* GetInstance();

    // False when the bus library is installed but can't be attached.
    bool registerInit();
    void registerUninit();

    int QueryInterface(const _GUID& iid, void** out) override;
    int AddRef() override;
    int Release() override;
    int GetUniqueID(unsigned char (*id)[16]) const override;
    int GetVersion(unsigned int* version) const override;
    int OnAdvised(MbFrame::IPluginSetting* setting, MbFrame::IDispatch* dispatch) override;
    int OnUnadvised(_UNADVISE_REASON reason) override;
    int OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS* status) override;

    // What the engines' queues took and what they refused for being full,
    // and how deep they are now, as a compact JSON object.
    std::string countersJson();

private:
    Register();
    ~Register() override;
    Register(const Register&) = delete;
    Register& operator=(const Register&) = delete;

    void queueRaspText(const char* text);
    void queueBaseEvent(int sub_type, void* data);

    // A full queue drops without a log line (the bus thread must not stall on
    // logging under a flood); the count keeps the loss visible.
    std::atomic<unsigned long long> m_baseQueued{0};
    std::atomic<unsigned long long> m_baseDropped{0};
    std::atomic<unsigned long long> m_raspQueued{0};
    std::atomic<unsigned long long> m_raspDropped{0};
    Transformer m_transformer;
    void* m_dll;
    MbFrame::IRtmFrame* m_frame;
};

extern Register* white_register;

#endif
