// The one bus of the process, shared by every frame: the plug-ins, their
// subscriptions, and delivery, either on the caller's thread (synchronous
// mode) or through a queue, bounded in events and in bytes, served by the
// bus's own thread.
#ifndef TULMB_BUS_H
#define TULMB_BUS_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bus_counters.h"
#include "rate_limit.h"
#include "mbframe.h"
#include "subscription.h"

namespace tulmb {

constexpr std::size_t kQueueCapacity = 4096;
// A 32-bit process: 4096 telemetry texts of 1 MiB would be all its memory.
constexpr std::size_t kQueueByteCapacity = 64u << 20;

class Bus {
public:
    static Bus& instance();

    // The dispatch thread runs while at least one frame exists.
    void attachFrame();
    // Drops the frame's remaining subscriptions; the last frame stops the thread.
    void detachFrame(const void* frame);

    int advise(const void* frame, MbFrame::IPlugin* plugin);
    int unadvise(const void* frame, const unsigned char* id);
    unsigned int pluginCount(const void* frame);

    int registerEvents(Subscription& subscription, const event_subscription* table, unsigned int count, bool add);
    // 0 when delivered or queued, 1 when a droppable event was dropped,
    // negative when a non-droppable event found the queue full.
    int invoke(MbFrame::IEvent* event);

    void setSynchronous(bool on);

    // A compact JSON object of the counters.
    std::string countersJson();

    ~Bus();

private:
    Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    void deliver(MbFrame::IEvent* event);
    void deliverTo(Subscription& target, MbFrame::IEvent* event, unsigned int id);
    void reportDrop(unsigned int id, std::size_t bytes, bool for_bytes);
    void dispatchLoop();
    void removeSubscriptions(const std::function<bool(const Subscription&)>& match, _UNADVISE_REASON reason);
    void stopThread();

    std::mutex m_mutex;
    std::condition_variable m_queueChanged;
    std::condition_variable m_deliveryDone;
    std::vector<std::shared_ptr<Subscription>> m_subscriptions;
    struct Queued {
        MbFrame::IEvent* event;
        std::size_t bytes;
    };
    std::deque<Queued> m_queue;
    std::size_t m_queuedBytes = 0;
    BusCounters m_counters;  // under m_mutex
    wlsock::RateLimit m_dropLog;
    wlsock::RateLimit m_errorLog;
    // Threads inside deliver(), once per nesting level. Not a thread_local:
    // the library can be unloaded, and its TLS must not outlive it.
    std::multiset<std::thread::id> m_delivering;
    std::thread m_thread;
    bool m_stopping = false;
    int m_frames = 0;
    bool m_synchronous = false;
    std::mutex m_lifecycle;  // serialises starting and stopping the thread
};

}  // namespace tulmb

#endif
