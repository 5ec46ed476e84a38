// A sink that keeps every event a capture back-end reports, and waits for
// them with a deadline rather than by polling.
#ifndef WL_TEST_COLLECTOR_RECORDING_SINK_H
#define WL_TEST_COLLECTOR_RECORDING_SINK_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "capture_backend.h"

class RecordingSink : public wlc::EventSink {
public:
    using Match = std::function<bool(const wlc::HostEvent&)>;

    void onEvent(wlc::HostEvent&& event) override {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(std::move(event));
        changed_.notify_all();
    }
    std::vector<wlc::HostEvent> events() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    // Waits until `done` holds for all events so far, or the timeout; the events then.
    std::vector<wlc::HostEvent> waitUntil(const std::function<bool(const std::vector<wlc::HostEvent>&)>& done,
                                          std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, timeout, [&] { return done(events_); });
        return events_;
    }
    // Where the next event will go: a mark to wait from.
    size_t mark() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_.size();
    }
    // The first event from `from` on that matches, waiting up to `timeout`.
    std::optional<wlc::HostEvent> waitFor(size_t from, const Match& match,
                                          std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::optional<wlc::HostEvent> found;
        waitUntil(
            [&](const std::vector<wlc::HostEvent>& events) {
                for (; from < events.size(); ++from) {
                    if (match(events[from])) return found = events[from], true;
                }
                return false;
            },
            timeout);
        return found;
    }
    size_t count(size_t from, const Match& match) { return waitCount(from, SIZE_MAX, match, {}); }
    // Waits until `want` events from `from` on match (or the timeout); how many did.
    size_t waitCount(size_t from, size_t want, const Match& match, std::chrono::milliseconds timeout) {
        size_t n = 0;
        waitUntil(
            [&](const std::vector<wlc::HostEvent>& events) {
                for (; from < events.size(); ++from) n += match(events[from]) ? 1 : 0;
                return n >= want;
            },
            timeout);
        return n;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<wlc::HostEvent> events_;
};

#endif
