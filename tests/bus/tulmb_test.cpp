// The open bus library on its own: frames, advising, delivery to every
// subscriber across frames, the bounded queue and reference counts.
#include <gtest/gtest.h>

#include <memory>

#include "bus_library.h"
#include "bus_test_support.h"
#include "whitelist_event.h"

namespace {

class BusTulmbTest : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_bus.loaded()) << "build the tulmb target first";
        m_bus.setSynchronous(GetParam());
    }
    BusLibrary m_bus;
};

// A counted event of the test that knows when it is gone.
EventTrace::CBaseEvent* newEvent(unsigned int id) {
    _RESPONSE_APP_REQUEST_INFO* native = nullptr;
    EventTrace::CBaseEvent* event = EventTrace::CBaseEvent::New(native);
    if (event != nullptr) {
        mb_set_event_id(*native, id);
    }
    return event;
}

TEST(BusTulmbEntry, ChecksItsArgumentsAndTheHashedIdentifier) {
    BusLibrary bus;
    ASSERT_TRUE(bus.loaded());
    void* out = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(bus.getClassObject(CLSID_NULL, *MbFrame::IRtmFrame::IRtmFrame_ID, nullptr), MB_E_POINTER);
    // The published ELF hash of "IRtmFrame" is not the identifier.
    const _GUID elfHashed = {0x0b1dcaa5u, 0, 0, {0}};
    EXPECT_NE(bus.getClassObject(CLSID_NULL, elfHashed, &out), 0);
    EXPECT_EQ(out, nullptr);
    const _GUID someClass = {1, 0, 0, {0}};
    EXPECT_NE(bus.getClassObject(someClass, *MbFrame::IRtmFrame::IRtmFrame_ID, &out), 0);

    ASSERT_EQ(bus.getClassObject(CLSID_NULL, *MbFrame::IRtmFrame::IRtmFrame_ID, &out), 0);
    MbFrame::IRtmFrame* frame = static_cast<MbFrame::IRtmFrame*>(out);
    void* again = nullptr;
    EXPECT_EQ(frame->QueryInterface(*MbFrame::IRtmFrame::IRtmFrame_ID, &again), 0);
    EXPECT_EQ(again, out);
    EXPECT_EQ(frame->Release(), 1);
    EXPECT_EQ(static_cast<unsigned int>(frame->QueryInterface(*MbFrame::IEvent::IEvent_ID, &again)), 0x80004002u);
    EXPECT_EQ(frame->Release(), 0);
}

TEST_P(BusTulmbTest, OneBusAcrossFramesReachesEverySubscriber) {
    TestPlugin publisher(0x11, {500});
    TestPlugin listener(0x22, {500, 501});
    MbFrame::IRtmFrame* first = m_bus.newFrame();
    MbFrame::IRtmFrame* second = m_bus.newFrame();
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    ASSERT_EQ(first->Advise(&publisher, 1), 0);
    ASSERT_EQ(second->Advise(&listener, 1), 0);
    EXPECT_EQ(publisher.m_advised.load(), 1) << "OnAdvised comes during Advise";
    EXPECT_EQ(first->GetPluginCount(), 1u);

    for (unsigned int id : {500u, 501u, 502u}) {
        MbFrame::IEvent* event = newEvent(id);
        ASSERT_NE(event, nullptr);
        EXPECT_EQ(publisher.dispatch()->Invoke(event), 0);
        event->Release();  // the publisher's reference; the bus keeps its own
    }
    ASSERT_TRUE(listener.waitReceived(2));
    ASSERT_TRUE(publisher.waitReceived(1));
    EXPECT_EQ(listener.received(), (std::vector<unsigned int>{500, 501}));
    EXPECT_EQ(publisher.received(), std::vector<unsigned int>{500}) << "the publisher hears itself";
    EXPECT_GE(listener.m_minRefsSeen.load(), 1) << "the subscriber holds a reference in OnEvent";

    EXPECT_EQ(first->Unadvise(publisher.id()), 0);
    EXPECT_EQ(publisher.m_unadvised.load(), 1);
    EXPECT_NE(first->Unadvise(publisher.id()), 0) << "no longer advised";
    EXPECT_EQ(first->Release(), 0);
    EXPECT_EQ(second->Release(), 0);
    EXPECT_EQ(listener.m_unadvised.load(), 1) << "released frame detaches its plug-ins";
    EXPECT_EQ(listener.m_lastReason.load(), UNADVISE_BY_FRAME_RELEASE);
    EXPECT_EQ(publisher.m_refs.load(), 0);
    EXPECT_EQ(listener.m_refs.load(), 0);
}

TEST_P(BusTulmbTest, OnePluginIdAdvisesOnce) {
    TestPlugin plugin(0x33, {});
    TestPlugin twin(0x33, {});
    MbFrame::IRtmFrame* frame = m_bus.newFrame();
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->Advise(&plugin, 1), 0);
    EXPECT_NE(frame->Advise(&twin, 1), 0);
    EXPECT_NE(frame->Advise(nullptr, 1), 0);
    EXPECT_EQ(twin.m_advised.load(), 0);
    EXPECT_EQ(frame->Unadvise(plugin.id()), 0);
    EXPECT_EQ(frame->Release(), 0);
}

// Leaves the bus from inside its own delivery.
class SelfRemovingPlugin : public TestPlugin {
public:
    SelfRemovingPlugin(MbFrame::IRtmFrame* frame) : TestPlugin(0x5a, {700}), m_frame(frame) {}
    int OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS* status) override {
        const int result = TestPlugin::OnEvent(event, status);
        m_frame->Unadvise(id());
        return result;
    }

private:
    MbFrame::IRtmFrame* m_frame;
};

TEST_P(BusTulmbTest, UnadviseFromInsideOnEventDoesNotWaitForItself) {
    MbFrame::IRtmFrame* frame = m_bus.newFrame();
    ASSERT_NE(frame, nullptr);
    SelfRemovingPlugin leaving(frame);
    TestPlugin observer(0x5b, {700});
    ASSERT_EQ(frame->Advise(&leaving, 1), 0);
    ASSERT_EQ(frame->Advise(&observer, 1), 0);
    for (int i = 0; i < 2; ++i) {
        EventTrace::CBaseEvent* event = newEvent(700);
        ASSERT_NE(event, nullptr);
        EXPECT_EQ(observer.dispatch()->Invoke(event), 0);
        event->Release();
        ASSERT_TRUE(observer.waitReceived(static_cast<std::size_t>(i + 1)));
    }
    EXPECT_EQ(leaving.received().size(), 1u);
    EXPECT_EQ(leaving.m_unadvised.load(), 1);
    EXPECT_EQ(frame->GetPluginCount(), 1u);
    EXPECT_EQ(frame->Release(), 0);
}

TEST(BusTulmbQueue, FullQueueRefusesWithoutBlockingThePublisher) {
    BusLibrary bus;
    ASSERT_TRUE(bus.loaded());
    bus.setSynchronous(false);
    TestPlugin slow(0x44, {600});
    MbFrame::IRtmFrame* frame = bus.newFrame();
    ASSERT_NE(frame, nullptr);
    ASSERT_EQ(frame->Advise(&slow, 1), 0);
    slow.hold();

    _RESPONSE_APP_REQUEST_INFO* native = nullptr;
    WhitelistEvent* kept = WhitelistEvent::New(native);  // not droppable
    ASSERT_NE(kept, nullptr);
    mb_set_event_id(*native, 600);
    EventTrace::CBaseEvent* droppable = newEvent(600);
    ASSERT_NE(droppable, nullptr);

    // One taken by the dispatch thread and held, then the queue fills up.
    int accepted = 0;
    int refused = 0;
    for (int i = 0; i < 4096 + 2; ++i) {
        const int result = slow.dispatch()->Invoke(kept);
        accepted += result == 0;
        refused += result < 0;
    }
    EXPECT_GE(accepted, 4096);
    EXPECT_LE(accepted, 4097);
    EXPECT_GE(refused, 1);
    EXPECT_EQ(slow.dispatch()->Invoke(droppable), 1) << "a droppable event is dropped, not refused";

    slow.open();
    ASSERT_TRUE(slow.waitReceived(static_cast<std::size_t>(accepted)));
    EXPECT_EQ(slow.received().size(), static_cast<std::size_t>(accepted));
    EXPECT_EQ(frame->Unadvise(slow.id()), 0);
    EXPECT_EQ(frame->Release(), 0);
    // Every queued reference came back: only the test's own remains.
    EXPECT_EQ(kept->AddRef(), 2);
    EXPECT_EQ(kept->Release(), 1);
    EXPECT_EQ(kept->Release(), 0);
    EXPECT_EQ(droppable->Release(), 0);
}

INSTANTIATE_TEST_SUITE_P(Delivery, BusTulmbTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "Synchronous" : "Threaded";
                         });

}  // namespace
