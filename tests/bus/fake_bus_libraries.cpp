// Stand-ins for the bus and telemetry libraries at their run-time paths. The
// test executable scripts their results and records what they are asked, so
// a failing step can be chosen and the clean-up after it observed.
#include <cstring>

#include "mbframe.h"

extern "C" int wl_fake_bus_result(const char* step);
extern "C" void wl_fake_bus_note(const char* call, const unsigned char* id);

#if defined(WL_FAKE_FRAME)
namespace {

class FakeFrame : public MbFrame::IRtmFrame {
public:
    int QueryInterface(const _GUID&, void**) override { return MB_E_NOINTERFACE; }
    int Release() override {
        wl_fake_bus_note("Release", nullptr);
        return IUnknown::Release();
    }
    int GetVersion(unsigned int* version) const override {
        *version = 1;
        return 0;
    }
    unsigned int GetPluginCount() const override { return 0; }
    int Advise(MbFrame::IPlugin* plugin, int flag) override {
        unsigned char id[16] = {};
        plugin->GetUniqueID(&id);
        wl_fake_bus_note(flag == 1 ? "Advise" : "Advise with another flag", id);
        return wl_fake_bus_result("Advise");
    }
    int Unadvise(const unsigned char* id) override {
        wl_fake_bus_note("Unadvise", id);
        return 0;
    }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) int DllGetClassObject(const _GUID& clsid, const _GUID& iid,
                                                                        void** out) {
    const _GUID none{};
    if (std::memcmp(&clsid, &none, sizeof(none)) != 0 || iid.Data1 != interface_id_hash("IRtmFrame")) {
        return MB_E_NOINTERFACE;
    }
    const int result = wl_fake_bus_result("DllGetClassObject");
    if (result != 0) {
        return result;
    }
    FakeFrame* frame = new FakeFrame;
    frame->AddRef();
    *out = frame;
    return 0;
}
#elif defined(WL_FAKE_RASP)
extern "C" __attribute__((visibility("default"))) int orv_rasp_reg_tele_callback(void (*)(const char*), void*) {
    wl_fake_bus_note("orv_rasp_reg_tele_callback", nullptr);
    return wl_fake_bus_result("orv_rasp_reg_tele_callback");
}
#else
extern "C" __attribute__((visibility("default"))) int wl_fake_without_entries() { return 0; }
#endif
