// WhitelistEvent's counting and WhitelistInvoke's publishing, against a
// dispatch of the test's own.
#include <gtest/gtest.h>

#include <vector>

#include "bus_test_support.h"
#include "log_capture.h"
#include "whitelist_event.h"
#include "whitelist_invoke.h"

namespace {

// Keeps every invoked event with a reference, as a queueing bus would.
class HoldingDispatch : public MbFrame::IDispatch {
public:
    explicit HoldingDispatch(int result = 0) : m_result(result) {}
    ~HoldingDispatch() {
        for (MbFrame::IEvent* event : m_events) {
            event->Release();
        }
    }
    int Invoke(MbFrame::IEvent* event) override {
        event->AddRef();
        m_events.push_back(event);
        return m_result;
    }
    std::vector<MbFrame::IEvent*> m_events;

private:
    int m_result;
};

class BusPublisherTest : public ::testing::Test {
protected:
    void advise(MbFrame::IDispatch* dispatch) { wlist_invoke->OnAdvised(nullptr, dispatch); }
    void TearDown() override { wlist_invoke->OnUnadvised(UNADVISE_BY_PLUGIN); }
    LogCapture m_log;
};

TEST(BusWhitelistEventTest, CountsReferencesAndFreesAtTheLast) {
    _RESPONSE_APP_REQUEST_INFO* native = nullptr;
    WhitelistEvent* event = WhitelistEvent::New(native);
    ASSERT_NE(event, nullptr);
    ASSERT_EQ(native, event->GetNativeEvent());
    EXPECT_EQ(native->event_id, 0);
    EXPECT_EQ(native->data, nullptr);
    EXPECT_FALSE(event->AsyncDroppable());

    ASSERT_TRUE(wlist_invoke->Transform(WL_PUBLISH_ORIGIN_JSON, 0, const_cast<char*>("{}"), 3, *native));
    EXPECT_EQ(event->GetUniqueID(), 19u);
    EXPECT_EQ(event->AddRef(), 2);
    EXPECT_EQ(event->Release(), 1);
    // Still readable: the payload goes only with the last reference.
    EXPECT_STREQ(static_cast<const char*>(native->data), "{}");
    EXPECT_EQ(event->Release(), 0);  // ASan reports a leak or a double free here
}

TEST(BusWhitelistEventTest, QueryInterface) {
    _RESPONSE_APP_REQUEST_INFO* native = nullptr;
    WhitelistEvent* event = WhitelistEvent::New(native);
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(static_cast<unsigned int>(event->QueryInterface(*MbFrame::IEvent::IEvent_ID, nullptr)), 0x80004003u);
    void* out = nullptr;
    EXPECT_EQ(event->QueryInterface(*MbFrame::IEvent::IEvent_ID, &out), 0);
    EXPECT_EQ(out, static_cast<MbFrame::IEvent*>(event));
    EXPECT_EQ(event->Release(), 1) << "QueryInterface took a reference";
    out = event;
    EXPECT_EQ(static_cast<unsigned int>(event->QueryInterface(*MbFrame::IRtmFrame::IRtmFrame_ID, &out)),
              0x80004002u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(event->Release(), 0);
}

TEST(BusWhitelistEventTest, TraceEventIsDroppableAndOwnsOnlyItsRecord) {
    _RESPONSE_APP_REQUEST_INFO* native = nullptr;
    EventTrace::CBaseEvent* event = EventTrace::CBaseEvent::New(native);
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(native, event->GetSendMsgData());
    EXPECT_TRUE(event->AsyncDroppable());
    mb_set_event_id(*native, 1022);
    EXPECT_EQ(event->GetUniqueID(), 1022u);
    EXPECT_EQ(event->Release(), 0);
}

TEST(BusTransformTest, CopiesAndTagsByType) {
    LogCapture log;
    unsigned char payload[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    struct Case {
        int type;
        bool result;
        unsigned int id;
        int sub_type;
    } cases[] = {
        {WL_PUBLISH_ORIGIN_JSON, true, 19, 0},  // sub_type of a text isn't stored
        {WL_PUBLISH_ACTION, true, 20, 1027},
        {3, false, 0, 0},
        {0, false, 0, 0},
    };
    for (const Case& c : cases) {
        _RESPONSE_APP_REQUEST_INFO native;
        std::memset(&native, 0, sizeof(native));
        native.event_id = 0xfc00;
        EXPECT_EQ(wlist_invoke->Transform(c.type, 1027, payload, sizeof(payload), native), c.result) << c.type;
        EXPECT_EQ(native.event_id, 0xfc00 | c.id) << c.type;
        EXPECT_EQ(native.sub_type, c.sub_type) << c.type;
        if (!c.result) {
            EXPECT_EQ(native.data, nullptr);
            continue;
        }
        ASSERT_NE(native.data, nullptr);
        EXPECT_NE(native.data, static_cast<void*>(payload)) << "the data is copied";
        const unsigned char* copy = static_cast<const unsigned char*>(native.data);
        EXPECT_EQ(std::memcmp(copy, payload, sizeof(payload)), 0);
        delete[] static_cast<char*>(native.data);
    }
    EXPECT_EQ(log.count("buffer failed"), 0);
}

TEST(BusTransformTest, ShortCollectorRecordIsZeroPaddedToTheLargestNativeRecord) {
    const char name[] = "PROCESS_CREATION";  // unterminated in the sender's 5 bytes
    _RESPONSE_APP_REQUEST_INFO native;
    std::memset(&native, 0, sizeof(native));
    ASSERT_TRUE(wlist_invoke->Transform(WL_PUBLISH_ACTION, 1027, const_cast<char*>(name), 5, native));
    const unsigned char* copy = static_cast<const unsigned char*>(native.data);
    EXPECT_EQ(std::memcmp(copy, name, 5), 0);
    std::size_t nonZero = 0;
    for (std::size_t i = 5; i <= kNativeRecordMaxSize; ++i) {  // ASan: all inside the buffer
        nonZero += copy[i] != 0;
    }
    EXPECT_EQ(nonZero, 0u);
    delete[] static_cast<char*>(native.data);
}

TEST_F(BusPublisherTest, RefusesBadArgumentsBeforeTheLock) {
    HoldingDispatch dispatch;
    advise(&dispatch);
    char text[] = "{}";
    wlist_invoke->Publish_t(1, 0, nullptr, 3);
    wlist_invoke->Publish_t(1, 0, text, 0);
    EXPECT_EQ(m_log.count("param error."), 2) << m_log.dump();
    EXPECT_FALSE(m_log.contains("rec one message."));
    EXPECT_TRUE(dispatch.m_events.empty());
}

TEST_F(BusPublisherTest, NeedsTheBusFirst) {
    char text[] = "{}";
    wlist_invoke->Publish_t(1, 0, text, 3);
    EXPECT_EQ(m_log.count("bus need init first."), 1) << m_log.dump();

    HoldingDispatch dispatch;
    advise(&dispatch);
    wlist_invoke->OnUnadvised(UNADVISE_BY_PLUGIN);
    wlist_invoke->Publish_t(1, 0, text, 3);
    EXPECT_EQ(m_log.count("bus need init first."), 2) << m_log.dump();
    EXPECT_TRUE(dispatch.m_events.empty());
}

TEST_F(BusPublisherTest, PublishedEventOutlivesTheCallWhileTheBusHoldsIt) {
    HoldingDispatch dispatch;
    advise(&dispatch);
    std::string text = "{\"id\":7}";
    wlist_invoke->Publish_t(1, 0, &text[0], static_cast<unsigned int>(text.size() + 1));
    text.assign(text.size(), 'x');  // the caller's buffer is free again
    ASSERT_EQ(dispatch.m_events.size(), 1u);
    MbFrame::IEvent* event = dispatch.m_events[0];
    EXPECT_EQ(event->GetUniqueID(), 19u);
    EXPECT_STREQ(static_cast<const char*>(event->GetNativeEvent()->data), "{\"id\":7}");
    EXPECT_TRUE(m_log.contains("rec one message."));
    EXPECT_TRUE(m_log.contains("Event: 19 OriginCltJson: {\"id\":7}")) << m_log.dump();
}

TEST_F(BusPublisherTest, ActionEventCarriesItsType) {
    HoldingDispatch dispatch;
    advise(&dispatch);
    auto record = processRecord("PROCESS_CREATION", 1, "/bin/ls");
    WhitelistInvoke::Publish(2, 1027, record.data(), static_cast<unsigned int>(record.size()), wlist_invoke);
    WhitelistInvoke::Publish(2, 1027, record.data(), static_cast<unsigned int>(record.size()), nullptr);
    ASSERT_EQ(dispatch.m_events.size(), 1u) << "the callback form needs its user";
    EXPECT_EQ(dispatch.m_events[0]->GetNativeEvent()->sub_type, 1027);
    EXPECT_TRUE(m_log.contains("Event: 20 ActionCltType: 1027")) << m_log.dump();
}

TEST_F(BusPublisherTest, UnknownTypeInvokesNothing) {
    HoldingDispatch dispatch;
    advise(&dispatch);
    char text[] = "{}";
    m_log.clear();
    wlist_invoke->Publish_t(3, 0, text, 3);
    EXPECT_TRUE(dispatch.m_events.empty());
    ASSERT_EQ(m_log.lines().size(), 1u) << m_log.dump();
    EXPECT_TRUE(m_log.contains("rec one message."));
}

TEST_F(BusPublisherTest, FailedInvokeIsLogged) {
    HoldingDispatch dispatch(-1);
    advise(&dispatch);
    char text[] = "{}";
    wlist_invoke->Publish_t(1, 0, text, 3);
    EXPECT_EQ(m_log.count("Error to Invoke data."), 1) << m_log.dump();
}

TEST_F(BusPublisherTest, TransmitEdgeCases) {
    HoldingDispatch dispatch;
    advise(&dispatch);
    transmit_rasp_data(nullptr);
    transmit_action_data(nullptr);
    EXPECT_EQ(m_log.count("no message"), 2) << m_log.dump();

    transmit_rasp_data("");
    ASSERT_EQ(dispatch.m_events.size(), 1u) << "an empty text is published, with its NUL";
    EXPECT_STREQ(static_cast<const char*>(dispatch.m_events[0]->GetNativeEvent()->data), "");

    auto empty = collectorMessage(1027, {});
    transmit_action_data(reinterpret_cast<const action_collector_msg*>(empty.data()));
    EXPECT_EQ(m_log.count("param error."), 1) << m_log.dump();
    EXPECT_EQ(dispatch.m_events.size(), 1u);

    auto message = collectorMessage(1029, netRecord("NETWORK_CONNECTION", "1.2.3.4", 80));
    transmit_action_data(reinterpret_cast<const action_collector_msg*>(message.data()));
    ASSERT_EQ(dispatch.m_events.size(), 2u);
    const _RESPONSE_APP_REQUEST_INFO* native = dispatch.m_events[1]->GetNativeEvent();
    EXPECT_EQ(native->sub_type, 1029);
    EXPECT_EQ(std::memcmp(native->data, message.data() + 280, sizeof(net_event_info)), 0);
}

}  // namespace
