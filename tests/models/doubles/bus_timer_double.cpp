// What the engine area needs from the bus subscriber and the timer library,
// reduced to nothing: the model tests drive the engines' command calls only.
#include "cl_ev.h"
#include "register.h"

Register* white_register = nullptr;

Register::Register() : m_dll(nullptr), m_frame(nullptr) {}
Register::~Register() {}

Register* Register::GetInstance() {
    static Register instance;
    return &instance;
}

bool Register::registerInit() { return true; }
void Register::registerUninit() {}
int Register::QueryInterface(const _GUID&, void**) { return MB_E_NOINTERFACE; }
int Register::AddRef() { return 1; }
int Register::Release() { return 1; }
int Register::GetUniqueID(unsigned char (*)[16]) const { return 0; }
int Register::GetVersion(unsigned int*) const { return 0; }
int Register::OnAdvised(MbFrame::IPluginSetting*, MbFrame::IDispatch*) { return 0; }
int Register::OnUnadvised(_UNADVISE_REASON) { return 0; }
int Register::OnEvent(MbFrame::IEvent*, _RESPONSE_STATUS*) { return 0; }

extern "C" {
cl_timer_t cl_timerplus_start(void*, int, unsigned int, cl_timer_fn, void*) { return nullptr; }
int cl_timerplus_close(cl_timer_t) { return 0; }
}
