// WhitelistInvoke's publishing, against a dispatch of the test's own.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bus_test_support.h"
#include "log_capture.h"
#include "orv_log.h"
#include "whitelist_invoke.h"

namespace {

// Keeps every invoked event with a reference, as a queueing bus would.
class HoldingDispatch : public MbFrame::IDispatch {
public:
    ~HoldingDispatch() {
        for (MbFrame::IEvent* event : m_events) {
            event->Release();
        }
    }
    int Invoke(MbFrame::IEvent* event) override {
        event->AddRef();
        m_events.push_back(event);
        return 0;
    }
    std::vector<MbFrame::IEvent*> m_events;
};

class BusPublisherTest : public ::testing::Test {
protected:
    void SetUp() override { wlist_invoke->OnAdvised(nullptr, &m_dispatch); }
    void TearDown() override { wlist_invoke->OnUnadvised(UNADVISE_BY_PLUGIN); }
    HoldingDispatch m_dispatch;
    LogCapture m_log;
    char m_text[3] = "{}";
};

TEST(BusTransformTest, ShortCollectorRecordIsZeroPaddedToTheLargestNativeRecord) {
    const char name[] = "PROCESS_CREATION";  // unterminated in the sender's 5 bytes
    _RESPONSE_APP_REQUEST_INFO native{};
    ASSERT_TRUE(
        wlist_invoke->Transform(WL_PUBLISH_ACTION, ACTION_PROCESS_CREATION, const_cast<char*>(name), 5, native));
    const unsigned char* copy = static_cast<const unsigned char*>(native.data);
    std::size_t nonZero = 0;
    for (std::size_t i = 5; i <= kNativeRecordMaxSize; ++i) {  // ASan: all inside the buffer
        nonZero += copy[i] != 0;
    }
    EXPECT_EQ(nonZero, 0u);
    delete[] static_cast<char*>(native.data);
}

TEST_F(BusPublisherTest, BadArgumentsAndUnknownTypesInvokeNothing) {
    wlist_invoke->Publish_t(1, 0, m_text, 0);
    auto empty = collectorMessage(ACTION_PROCESS_CREATION, {});
    transmit_action_data(reinterpret_cast<const action_collector_msg*>(empty.data()));
    EXPECT_EQ(m_log.count("param error."), 2) << m_log.dump();
    EXPECT_FALSE(m_log.contains("rec one message."));

    m_log.clear();
    wlist_invoke->Publish_t(3, 0, m_text, 3);
    EXPECT_TRUE(m_dispatch.m_events.empty());
    ASSERT_EQ(m_log.lines().size(), 1u) << m_log.dump();
    EXPECT_TRUE(m_log.contains("rec one message."));
}

// A bus that answers every delivery with a scripted result and keeps nothing.
class AnsweringDispatch : public MbFrame::IDispatch {
public:
    int Invoke(MbFrame::IEvent* event) override {
        ++m_invoked;
        m_lastId = event->GetUniqueID();
        return m_result;
    }
    int m_result = 0;
    int m_invoked = 0;
    unsigned int m_lastId = 0;
};

TEST(BusPublisherInvokeTest, OnlyANegativeAnswerIsLogged) {
    AnsweringDispatch dispatch;
    LogCapture log;
    wlist_invoke->OnAdvised(nullptr, &dispatch);
    const struct {
        int result;
        int logged;
    } cases[] = {{static_cast<int>(0x84ce0003u), 1}, {-1, 1}, {0, 0}, {1, 0}};
    for (const auto& c : cases) {
        log.clear();
        dispatch.m_invoked = 0;
        dispatch.m_result = c.result;
        transmit_rasp_data("{}");
        EXPECT_EQ(dispatch.m_invoked, 1);
        EXPECT_EQ(dispatch.m_lastId, 19u);
        EXPECT_EQ(log.count("Error to Invoke data.", LOG_LVL_ERROR), c.logged) << c.result << log.dump();
    }
    wlist_invoke->OnUnadvised(UNADVISE_BY_PLUGIN);
    log.clear();
    transmit_rasp_data("{}");
    EXPECT_EQ(dispatch.m_invoked, 1) << "not after the bus let go";
    EXPECT_EQ(log.count("bus need init first.", LOG_LVL_ERROR), 1) << log.dump();
}

TEST_F(BusPublisherTest, PublishedEventsOutliveTheCallWhileTheBusHoldsThem) {
    std::string text = "{\"id\":7}";
    wlist_invoke->Publish_t(1, 0, &text[0], static_cast<unsigned int>(text.size() + 1));
    text.assign(text.size(), 'x');  // the caller's buffer is free again
    auto message = collectorMessage(ACTION_FILE_DELETION, fileRecord("FILE_DELETION", "/etc/passwd"));
    transmit_action_data(reinterpret_cast<const action_collector_msg*>(message.data()));
    const std::vector<unsigned char> sent(message.begin() + 280, message.end() - 1);
    message.assign(message.size(), 0xee);

    ASSERT_EQ(m_dispatch.m_events.size(), 2u);
    EXPECT_EQ(m_dispatch.m_events[0]->GetUniqueID(), 19u);
    EXPECT_STREQ(static_cast<const char*>(m_dispatch.m_events[0]->GetNativeEvent()->data), "{\"id\":7}");
    const _RESPONSE_APP_REQUEST_INFO* action = m_dispatch.m_events[1]->GetNativeEvent();
    EXPECT_EQ(m_dispatch.m_events[1]->GetUniqueID(), 20u);
    EXPECT_EQ(action->sub_type, ACTION_FILE_DELETION);
    EXPECT_EQ(std::memcmp(action->data, sent.data(), sent.size()), 0);
    EXPECT_TRUE(m_log.contains("Event: 19 OriginCltJson: {\"id\":7}")) << m_log.dump();
    EXPECT_TRUE(m_log.contains("Event: 20 ActionCltType: " + std::to_string(ACTION_FILE_DELETION))) << m_log.dump();
}

}  // namespace
