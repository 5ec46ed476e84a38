// One plug-in advised on a frame: its identity, its events, and the setting
// and dispatch objects handed to it in OnAdvised.
#ifndef TULMB_SUBSCRIPTION_H
#define TULMB_SUBSCRIPTION_H

#include <cstring>
#include <set>

#include "mbframe.h"

namespace tulmb {

struct Subscription;

class SubscriptionSetting final : public MbFrame::IPluginSetting {
public:
    explicit SubscriptionSetting(Subscription& owner) : m_owner(owner) {}
    int GetPluginID(unsigned char (*id)[16]) const override;
    int UnregisterEvents(const event_subscription* table, unsigned int count) override;
    int RegisterEvents(const event_subscription* table, unsigned int count) override;

private:
    Subscription& m_owner;
};

class BusDispatch final : public MbFrame::IDispatch {
public:
    int Invoke(MbFrame::IEvent* event) override;
};

struct Subscription {
    Subscription(MbFrame::IPlugin* plugin_, const unsigned char (&id_)[16], const void* frame_)
        : plugin(plugin_), frame(frame_), setting(*this) {
        std::memcpy(id, id_, sizeof(id));
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    MbFrame::IPlugin* plugin;
    unsigned char id[16];
    const void* frame;
    // Guarded by the bus's mutex.
    std::set<unsigned int> events;
    int inflight = 0;  // deliveries under way to this plug-in
    SubscriptionSetting setting;
    BusDispatch dispatch;
};

}  // namespace tulmb

#endif
