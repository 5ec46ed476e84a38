#include "bus.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace tulmb {

namespace {
bool sameId(const Subscription& subscription, const unsigned char* id) {
    return std::memcmp(subscription.id, id, sizeof(subscription.id)) == 0;
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
    std::deque<MbFrame::IEvent*> pending;
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
    }
    for (MbFrame::IEvent* event : pending) {
        event->Release();
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
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_synchronous) {
            if (!m_thread.joinable() || m_stopping) {
                return MB_E_FAIL;
            }
            if (m_queue.size() >= kQueueCapacity) {
                // Never block the publisher on a slow subscriber.
                return event->AsyncDroppable() ? 1 : MB_E_QUEUE_FULL;
            }
            event->AddRef();  // the queue's reference
            m_queue.push_back(event);
            m_queueChanged.notify_one();
            return 0;
        }
    }
    deliver(event);
    return 0;
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
        _RESPONSE_STATUS status = {0, 0};
        event->AddRef();  // the subscriber's reference: it releases it
        target->plugin->OnEvent(event, &status);
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
        MbFrame::IEvent* event = m_queue.front();
        m_queue.pop_front();
        lock.unlock();
        deliver(event);
        event->Release();  // the queue's reference
        lock.lock();
    }
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
