// The bus library under pressure: a queue bounded in bytes as well as in
// events, where the newest is dropped and counted, and a subscriber whose
// OnEvent throws without stopping the deliveries.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "bus_library.h"
#include "bus_test_support.h"
#include "log_capture.h"
#include "mb_contract.h"

namespace {

// Reads one number out of the bus's counters text; -1 when absent.
long long busCounter(const std::string& name, const std::string& event = "") {
    static void* library = dlopen(WL_TEST_PLUGIN_DIR "/libtulmb.1.so", RTLD_NOW);
    auto read = reinterpret_cast<int (*)(char*, int)>(dlsym(library, "tulmb_counters_json"));
    if (read == nullptr) return -1;
    std::string text(static_cast<size_t>(read(nullptr, 0)), '\0');
    if (read(&text[0], static_cast<int>(text.size())) != static_cast<int>(text.size()) - 1) return -1;
    size_t from = 0;
    if (!event.empty()) {
        from = text.find("\"" + event + "\":{");
        if (from == std::string::npos) return 0;
    }
    const size_t at = text.find("\"" + name + "\":", from);
    return at == std::string::npos ? -1 : std::stoll(text.substr(at + name.size() + 3));
}

// Holds the delivery thread inside OnEvent until opened.
class GatedPlugin : public TestPlugin {
public:
    GatedPlugin(unsigned char idByte, std::vector<uint32_t> events) : TestPlugin(idByte, std::move(events)) {}
    int OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS* status) override {
        std::unique_lock<std::mutex> lock(m_lock);
        m_entered = true;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open; });
        lock.unlock();
        return TestPlugin::OnEvent(event, status);
    }
    void waitEntered() {
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait(lock, [this] { return m_entered; });
    }
    void open() {
        std::lock_guard<std::mutex> lock(m_lock);
        m_open = true;
        m_changed.notify_all();
    }

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_entered = false;
    bool m_open = false;
};

// Throws on every event whose text says so, after releasing it.
class ThrowingPlugin : public TestPlugin {
public:
    ThrowingPlugin() : TestPlugin(0x6c, {19}) {}
    int OnEvent(MbFrame::IEvent* event, _RESPONSE_STATUS* status) override {
        const bool fail = std::string(static_cast<const char*>(event->GetNativeEvent()->data)) == "throw";
        TestPlugin::OnEvent(event, status);
        if (fail) throw std::runtime_error("subscriber bug");
        return 0;
    }
};

class BusLimitsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_bus.loaded()) << "build the tulmb target first";
        m_bus.setSynchronous(false);
        m_frame = m_bus.newFrame();
        ASSERT_NE(m_frame, nullptr);
    }
    void TearDown() override {
        if (m_frame != nullptr) m_frame->Release();
    }
    BusLibrary m_bus;
    MbFrame::IRtmFrame* m_frame = nullptr;
    LogCapture m_log;
};

TEST_F(BusLimitsTest, QueueFullOfBytesDropsTheNewestCountsItAndDeliversTheRest) {
    GatedPlugin plugin(0x6b, {19});
    ASSERT_EQ(m_frame->Advise(&plugin, 1), 0);
    std::string first = "first";
    CountedEvent head(19, &first[0], 0);
    ASSERT_EQ(plugin.dispatch()->Invoke(&head), 0);
    plugin.waitEntered();  // the queue fills behind a subscriber that doesn't return

    // 1 MiB texts: 63 of them and their records fit in 64 MiB, the 64th does not.
    std::string text(1024 * 1024, 't');
    std::vector<std::unique_ptr<CountedEvent>> events;
    const long long droppedBefore = busCounter("dropped_full_bytes");
    const long long droppedOf19 = busCounter("dropped", "19");
    int queued = 0;
    int refused = 0;
    for (int i = 0; i < 70; ++i) {
        events.push_back(std::make_unique<CountedEvent>(19, &text[0], 0));
        const int result = plugin.dispatch()->Invoke(events.back().get());
        if (result == 0) {
            ++queued;
            EXPECT_EQ(refused, 0) << "after the first drop nothing more fits";
        } else {
            EXPECT_EQ(result, MB_E_QUEUE_FULL);
            EXPECT_EQ(events.back()->count(), 0) << "a dropped event keeps no reference";
            ++refused;
        }
    }
    EXPECT_EQ(queued, 63);
    EXPECT_EQ(busCounter("queued_events"), 63);
    EXPECT_GT(busCounter("queued_bytes"), 63ll * 1024 * 1024);
    EXPECT_LE(busCounter("queued_bytes"), 64ll * 1024 * 1024);
    EXPECT_EQ(busCounter("dropped_full_bytes") - droppedBefore, 7);
    EXPECT_EQ(busCounter("dropped", "19") - droppedOf19, 7);
    EXPECT_EQ(m_log.count("bus queue full"), 1) << "said once, not seven times\n" << m_log.dump();

    plugin.open();
    EXPECT_TRUE(waitUntil([&plugin] { return plugin.m_received == 64; })) << "everything queued is delivered";
    EXPECT_TRUE(waitUntil([] { return busCounter("queued_bytes") == 0; }));
    m_frame->Unadvise(plugin.id());
}

TEST_F(BusLimitsTest, ASubscriberThatThrowsIsCountedAndDeliveriesGoOn) {
    ThrowingPlugin plugin;
    ASSERT_EQ(m_frame->Advise(&plugin, 1), 0);
    const long long errorsBefore = busCounter("delivery_errors");
    const long long deliveredBefore = busCounter("delivered");
    std::string bad = "throw";
    std::string good = "fine";
    CountedEvent first(19, &bad[0], 0);
    CountedEvent second(19, &good[0], 0);
    CountedEvent third(19, &bad[0], 0);
    for (CountedEvent* event : {&first, &second, &third}) ASSERT_EQ(plugin.dispatch()->Invoke(event), 0);
    EXPECT_TRUE(waitUntil([&plugin] { return plugin.m_received == 3; })) << "the bus thread survived the throw";
    EXPECT_TRUE(waitUntil([&] { return busCounter("delivery_errors") - errorsBefore == 2; }));
    EXPECT_EQ(busCounter("delivered") - deliveredBefore, 1);
    EXPECT_TRUE(m_log.contains("OnEvent threw on event 19: subscriber bug")) << m_log.dump();

    m_bus.setSynchronous(true);  // the publisher's thread is protected the same way
    CountedEvent fourth(19, &bad[0], 0);
    EXPECT_EQ(plugin.dispatch()->Invoke(&fourth), 0);
    EXPECT_EQ(busCounter("delivery_errors") - errorsBefore, 3);
    m_bus.setSynchronous(false);
    m_frame->Unadvise(plugin.id());
}

}  // namespace
