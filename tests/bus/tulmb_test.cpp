// The open bus library on its own: a plug-in may leave the bus from inside
// its own delivery, in both delivery modes.
#include <gtest/gtest.h>

#include "bus_library.h"
#include "log_capture.h"
#include "mb_contract.h"
#include "whitelist_event.h"

namespace {

class SelfRemovingPlugin : public TestPlugin {
public:
    explicit SelfRemovingPlugin(MbFrame::IRtmFrame* frame) : TestPlugin(0x5a, {700}), m_frame(frame) {}
    int OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS* status) override {
        const int result = TestPlugin::OnEvent(event, status);
        m_frame->Unadvise(id());
        return result;
    }

private:
    MbFrame::IRtmFrame* m_frame;
};

class BusTulmbTest : public ::testing::TestWithParam<bool> {};

TEST_P(BusTulmbTest, UnadviseFromInsideOnEventDoesNotWaitForItself) {
    BusLibrary bus;
    ASSERT_TRUE(bus.loaded()) << "build the tulmb target first";
    bus.setSynchronous(GetParam());
    MbFrame::IRtmFrame* frame = bus.newFrame();
    ASSERT_NE(frame, nullptr);
    SelfRemovingPlugin leaving(frame);
    TestPlugin observer(0x5b, {700});
    ASSERT_EQ(frame->Advise(&leaving, 1), 0);
    ASSERT_EQ(frame->Advise(&observer, 1), 0);
    for (int i = 1; i <= 2; ++i) {
        _RESPONSE_APP_REQUEST_INFO* native = nullptr;
        EventTrace::CBaseEvent* event = EventTrace::CBaseEvent::New(native);
        ASSERT_NE(event, nullptr);
        mb_set_event_id(*native, 700);
        EXPECT_EQ(observer.dispatch()->Invoke(event), 0);
        event->Release();  // the bus keeps its own reference
        ASSERT_TRUE(waitUntil([&] { return observer.m_received.load() == i; }));
    }
    EXPECT_EQ(leaving.m_received.load(), 1);
    EXPECT_EQ(leaving.m_unadvised.load(), 1);
    EXPECT_EQ(frame->GetPluginCount(), 1u);
    EXPECT_EQ(frame->Release(), 0);
}

INSTANTIATE_TEST_SUITE_P(Delivery, BusTulmbTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "Synchronous" : "Threaded";
                         });

}  // namespace
