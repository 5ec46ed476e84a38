#include "bus.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "action_records.h"
#include "orv_log.h"

#define BUS_LOG(level, ...)                                        \
    do {                                                           \
        if (error_output_check(level)) {                           \
            error_output((level), "tulmb", __LINE__, __VA_ARGS__); \
        }                                                          \
    } while (0)

namespace tulmb {

namespace {
constexpr unsigned int kTextEvent = 19;  // its payload is a NUL-terminated text
// The bus can't see the size of an opaque payload; the other events carry
// collector records, so each is charged the largest of those.
constexpr std::size_t kOpaquePayloadCharge =
    std::max({sizeof(process_event_info), sizeof(file_event_info), sizeof(net_event_info)});

bool sameId(const Subscription& subscription, const unsigned char* id) {
    return std::memcmp(subscription.id, id, sizeof(subscription.id)) == 0;
}

std::size_t weigh(MbFrame::IEvent* event, unsigned int id) {
    std::size_t bytes = sizeof(_RESPONSE_APP_REQUEST_INFO);
    _RESPONSE_APP_REQUEST_INFO* native = event->GetNativeEvent();
    if (id == kTextEvent && native != nullptr && native->data != nullptr) {
        return bytes + std::strlen(static_cast<const char*>(native->data)) + 1;
    }
    return bytes + kOpaquePayloadCharge;
}
}  // namespace

Bus& Bus::instance() {
    static Bus bus;
    return bus;
}

Bus::Bus() {
    const char* sync = std::getenv("WL_TULMB_SYNC");
    m_synchronous = sync != nullptr && std::strcmp(sync, "1") == 0;
}

Bus::~Bus() {
    // Library unload with frames still alive: the thread must not outlive its code.
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_frames = 0;
    }
    stopThread();
}

void Bus::setSynchronous(bool on) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_synchronous = on;
}

void Bus::attachFrame() {
    std::lock_guard<std::mutex> life(m_lifecycle);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_frames++ == 0 && !m_thread.joinable()) {
        m_stopping = false;
        m_thread = std::thread([this] { dispatchLoop(); });
    }
}

void Bus::detachFrame(const void* frame) {
    removeSubscriptions([frame](const Subscription& s) { return s.frame == frame; }, UNADVISE_BY_FRAME_RELEASE);
    bool last = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        last = --m_frames == 0;
    }
    if (last) {
        stopThread();
    }
}

void Bus::stopThread() {
    std::lock_guard<std::mutex> life(m_lifecycle);
    std::thread thread;
    std::deque<Queued> pending;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_frames != 0 || !m_thread.joinable()) {
            return;  // a frame came back meanwhile, or nothing runs
        }
        m_stopping = true;
        thread = std::move(m_thread);
    }
    m_queueChanged.notify_all();
    if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();  // the last frame was released from inside a delivery
    } else {
        thread.join();
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        pending.swap(m_queue);
        m_queuedBytes = 0;
    }
    for (const Queued& entry : pending) {
        entry.event->Release();
    }
}

int Bus::advise(const void* frame, MbFrame::IPlugin* plugin) {
    if (plugin == nullptr) {
        return MB_E_INVALIDARG;
    }
    unsigned char id[16] = {0};
    if (plugin->GetUniqueID(&id) != 0) {
        return MB_E_INVALIDARG;
    }
    auto subscription = std::make_shared<Subscription>(plugin, id, frame);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& existing : m_subscriptions) {
            if (sameId(*existing, id)) {
                return MB_E_FAIL;  // one attachment per plug-in id
            }
        }
        m_subscriptions.push_back(subscription);
    }
    plugin->AddRef();
    const int result = plugin->OnAdvised(&subscription->setting, &subscription->dispatch);
    if (result != 0) {
        Subscription* raw = subscription.get();
        removeSubscriptions([raw](const Subscription& s) { return &s == raw; }, UNADVISE_BY_PLUGIN);
        return result;
    }
    return 0;
}

int Bus::unadvise(const void* frame, const unsigned char* id) {
    if (id == nullptr) {
        return MB_E_INVALIDARG;
    }
    bool found = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& s : m_subscriptions) {
            found = found || (s->frame == frame && sameId(*s, id));
        }
    }
    if (!found) {
        return MB_E_INVALIDARG;
    }
    removeSubscriptions([frame, id](const Subscription& s) { return s.frame == frame && sameId(s, id); },
                        UNADVISE_BY_PLUGIN);
    return 0;
}

void Bus::removeSubscriptions(const std::function<bool(const Subscription&)>& match, _UNADVISE_REASON reason) {
    std::vector<std::shared_ptr<Subscription>> removed;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (auto it = m_subscriptions.begin(); it != m_subscriptions.end();) {
            if (match(**it)) {
                removed.push_back(*it);
                it = m_subscriptions.erase(it);
            } else {
                ++it;
            }
        }
        // A plug-in may unadvise from inside its own OnEvent: it must not wait for itself.
        if (m_delivering.count(std::this_thread::get_id()) == 0) {
            // After Unadvise returns, no OnEvent of the plug-in is still running.
            m_deliveryDone.wait(lock, [&removed] {
                return std::all_of(removed.begin(), removed.end(),
                                   [](const std::shared_ptr<Subscription>& s) { return s->inflight == 0; });
            });
        }
    }
    for (const auto& subscription : removed) {
        subscription->plugin->OnUnadvised(reason);
        subscription->plugin->Release();
    }
}

unsigned int Bus::pluginCount(const void* frame) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<unsigned int>(std::count_if(m_subscriptions.begin(), m_subscriptions.end(),
                                                   [frame](const auto& s) { return s->frame == frame; }));
}

int Bus::registerEvents(Subscription& subscription, const event_subscription* table, unsigned int count, bool add) {
    if (table == nullptr && count != 0) {
        return MB_E_INVALIDARG;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    for (unsigned int i = 0; i < count; ++i) {
        const unsigned int id = table[i].event_id & MB_EVENT_ID_MASK;
        if (add) {
            subscription.events.insert(id);
        } else {
            subscription.events.erase(id);
        }
    }
    return 0;
}

int Bus::invoke(MbFrame::IEvent* event) {
    if (event == nullptr) {
        return MB_E_INVALIDARG;
    }
    const unsigned int id = event->GetUniqueID() & MB_EVENT_ID_MASK;
    const std::size_t bytes = weigh(event, id);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_synchronous) {
            if (!m_thread.joinable() || m_stopping) {
                return MB_E_FAIL;
            }
            const bool fullOfEvents = m_queue.size() >= kQueueCapacity;
            if (fullOfEvents || m_queuedBytes + bytes > kQueueByteCapacity) {
                // Never block the publisher on a slow subscriber: the newest goes.
                ++(fullOfEvents ? m_counters.dropped_full_events : m_counters.dropped_full_bytes);
                ++m_counters.by_event[id].dropped;
                reportDrop(id, bytes, !fullOfEvents);
                return event->AsyncDroppable() ? 1 : MB_E_QUEUE_FULL;
            }
            ++m_counters.total.published;
            ++m_counters.by_event[id].published;
            event->AddRef();  // the queue's reference
            m_queue.push_back(Queued{event, bytes});
            m_queuedBytes += bytes;
            m_queueChanged.notify_one();
            return 0;
        }
        ++m_counters.total.published;
        ++m_counters.by_event[id].published;
    }
    deliver(event);
    return 0;
}

// Under m_mutex.
void Bus::reportDrop(unsigned int id, std::size_t bytes, bool for_bytes) {
    std::uint64_t held_back = 0;
    if (!m_dropLog.allow(&held_back)) {
        return;
    }
    BUS_LOG(LOG_LVL_WARN,
            "bus queue full (%zu events, %zu bytes): event %u of %zu bytes dropped for its %s; dropped so far: "
            "%llu for events, %llu for bytes (%llu drops unlogged)",
            m_queue.size(), m_queuedBytes, id, bytes, for_bytes ? "bytes" : "count",
            static_cast<unsigned long long>(m_counters.dropped_full_events),
            static_cast<unsigned long long>(m_counters.dropped_full_bytes), static_cast<unsigned long long>(held_back));
}

void Bus::deliverTo(Subscription& target, MbFrame::IEvent* event, unsigned int id) {
    _RESPONSE_STATUS status = {0, 0};
    event->AddRef();  // the subscriber's reference: it releases it
    bool failed = false;
    std::string what = "not a std::exception";
    try {
        target.plugin->OnEvent(event, &status);
    } catch (const std::exception& error) {
        failed = true;
        what = error.what();  // the exception is gone once the handler ends
    } catch (...) {
        failed = true;
    }
    std::uint64_t held_back = 0;
    bool log = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        EventCounters& mine = m_counters.by_event[id];
        if (failed) {
            ++m_counters.total.errors;
            ++mine.errors;
            log = m_errorLog.allow(&held_back);
        } else {
            ++m_counters.total.delivered;
            ++mine.delivered;
        }
    }
    // The subscriber may or may not have released its reference before it
    // threw: leaking one event is better than freeing it twice.
    if (log) {
        BUS_LOG(LOG_LVL_ERROR, "a subscriber's OnEvent threw on event %u: %s (%llu more unlogged)", id, what.c_str(),
                static_cast<unsigned long long>(held_back));
    }
}

void Bus::deliver(MbFrame::IEvent* event) {
    const unsigned int id = event->GetUniqueID() & MB_EVENT_ID_MASK;
    std::vector<std::shared_ptr<Subscription>> targets;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& s : m_subscriptions) {
            if (s->events.count(id) != 0) {
                ++s->inflight;
                targets.push_back(s);
            }
        }
        m_delivering.insert(std::this_thread::get_id());
    }
    for (const auto& target : targets) {
        deliverTo(*target, event, id);
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& target : targets) {
            --target->inflight;
        }
        m_delivering.erase(m_delivering.find(std::this_thread::get_id()));
    }
    m_deliveryDone.notify_all();
}

void Bus::dispatchLoop() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_queueChanged.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
        if (m_stopping) {
            return;
        }
        Queued next = m_queue.front();
        m_queue.pop_front();
        m_queuedBytes -= next.bytes;
        lock.unlock();
        deliver(next.event);
        next.event->Release();  // the queue's reference
        lock.lock();
    }
}

std::string Bus::countersJson() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_counters.toJson(m_queue.size(), m_queuedBytes);
}

int SubscriptionSetting::GetPluginID(unsigned char (*id)[16]) const {
    if (id == nullptr) {
        return MB_E_INVALIDARG;
    }
    std::memcpy(*id, m_owner.id, sizeof(m_owner.id));
    return 0;
}

int SubscriptionSetting::RegisterEvents(const event_subscription* table, unsigned int count) {
    return Bus::instance().registerEvents(m_owner, table, count, true);
}

int SubscriptionSetting::UnregisterEvents(const event_subscription* table, unsigned int count) {
    return Bus::instance().registerEvents(m_owner, table, count, false);
}

int BusDispatch::Invoke(MbFrame::IEvent* event) { return Bus::instance().invoke(event); }

}  // namespace tulmb
