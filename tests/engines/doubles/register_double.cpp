// The bus subscriber, reduced to what the engine init functions need: attach
// and detach with a scripted result. No bus is involved.
#include "recorders.h"
#include "register.h"

Register* white_register = nullptr;

Register::Register() : m_dll(nullptr), m_frame(nullptr) {}
Register::~Register() {}

Register* Register::GetInstance() {
    static Register instance;
    return &instance;
}

bool Register::registerInit() {
    call_log::record("register init");
    return recorders::registerInitResult();
}
void Register::registerUninit() { call_log::record("register uninit"); }

int Register::QueryInterface(const _GUID&, void**) { return MB_E_NOINTERFACE; }
int Register::AddRef() { return 1; }
int Register::Release() { return 1; }
int Register::GetUniqueID(unsigned char (*)[16]) const { return 0; }
int Register::GetVersion(unsigned int*) const { return 0; }
int Register::OnAdvised(MbFrame::IPluginSetting*, MbFrame::IDispatch*) { return 0; }
int Register::OnUnadvised(_UNADVISE_REASON) { return 0; }
int Register::OnEvent(MbFrame::IEvent*, _RESPONSE_STATUS*) { return 0; }
