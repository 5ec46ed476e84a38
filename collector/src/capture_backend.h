// One capture engine of the collector. Each back-end reports what watched
// processes do; the collector core does the rest (enrichment, records,
// clients). Back-ends deliver on threads of their own.
#ifndef WLC_CAPTURE_BACKEND_H
#define WLC_CAPTURE_BACKEND_H

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "host_event.h"

namespace wlc {

// Receives events; called from back-end threads, must be thread-safe and
// must not block for long.
class EventSink {
public:
    virtual ~EventSink() = default;
    virtual void onEvent(HostEvent&& event) = 0;
};

struct BackendCounters {
    uint64_t lostInKernel = 0;   // ring buffer full, or the kernel's queue overflowed
    uint64_t lostInBackend = 0;  // seen but could not be decoded or read
    // The kernel's losses by kind, where the back-end can tell them apart.
    std::array<uint64_t, kEventKindCount> lostInKernelByKind{};
};

class CaptureBackend {
public:
    virtual ~CaptureBackend() = default;

    // "ebpf" or "portable".
    virtual const char* name() const = 0;
    // Loads, attaches and starts delivering to sink. False with a reason
    // when this host cannot run the back-end; nothing is left running then.
    virtual bool start(EventSink& sink, std::string& error) = 0;
    // Stops delivering; joins the back-end's threads. Safe to call twice.
    virtual void stop() = 0;

    // Watches pid, and every process it forks from now on (and theirs),
    // until that process exits or its watched ancestor is unwatched.
    virtual void watch(int32_t pid) = 0;
    // Stops watching pid and every process watched because of it.
    virtual void unwatch(int32_t pid) = 0;
    // Whether pid is watched now (itself or through an ancestor).
    virtual bool isWatched(int32_t pid) const = 0;

    // Kinds this back-end cannot see on this host (a bit per EventKind),
    // e.g. DNS queries for the portable back-end.
    virtual uint32_t unsupportedKinds() const { return 0; }

    virtual BackendCounters counters() const = 0;
};

std::unique_ptr<CaptureBackend> makeEbpfBackend();
std::unique_ptr<CaptureBackend> makePortableBackend();

}  // namespace wlc

#endif
