// The capture back-end for hosts where eBPF cannot load: the process-event
// connector, fanotify and sock_diag, tied to a watch set kept in user space.
#ifndef WLC_PORTABLE_PORTABLE_BACKEND_H
#define WLC_PORTABLE_PORTABLE_BACKEND_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "capture_backend.h"
#include "portable/fanotify_watch.h"
#include "portable/proc_connector.h"
#include "portable/sock_diag_poll.h"
#include "wl_unique_fd.h"
#include "portable/watch_set.h"

namespace wlc::portable {

class PortableBackend final : public CaptureBackend {
public:
    static constexpr int kSocketPollMs = 250;

    PortableBackend() = default;
    ~PortableBackend() override;

    const char* name() const override { return "portable"; }
    bool start(EventSink& sink, std::string& error) override;
    void stop() override;

    void watch(int32_t pid) override { watched_.watch(pid); }
    void unwatch(int32_t pid) override { watched_.unwatch(pid); }
    bool isWatched(int32_t pid) const override { return watched_.isWatched(pid); }

    uint32_t unsupportedKinds() const override { return unsupported_.load(); }
    BackendCounters counters() const override;

    // What this host keeps from view, for the log.
    std::string limitations() const;

private:
    void eventLoop();
    void socketLoop();
    void drainConnector(std::vector<HostEvent>& out, std::vector<int32_t>& pendingExits);
    void drainFiles(std::vector<HostEvent>& out);
    void resync(std::vector<HostEvent>& out);
    void deliver(std::vector<HostEvent>& events);
    void release();

    WatchSet watched_;
    EventSink* sink_ = nullptr;
    wl::UniqueFd wake_;
    wl::UniqueFd mountInfo_;
    std::unique_ptr<ProcConnector> connector_;
    std::unique_ptr<FanotifyWatch> files_;
    std::unique_ptr<SockDiagPoll> sockets_;
    std::thread eventThread_;
    std::thread socketThread_;

    std::atomic<uint32_t> unsupported_{1u << static_cast<int>(EventKind::DnsQuery)};
    std::atomic<uint64_t> lostInKernel_{0};
    std::atomic<uint64_t> lostInBackend_{0};

    mutable std::mutex lifecycle_;  // start, stop, and what they set up
    bool running_ = false;
    std::string fileProblem_;
    std::string socketProblem_;
};

}  // namespace wlc::portable

#endif
