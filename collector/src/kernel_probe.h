// What this kernel offers the collector, and which back-end would run.
#ifndef WLC_KERNEL_PROBE_H
#define WLC_KERNEL_PROBE_H

#include <string>
#include <vector>

namespace wlc {

struct ProbeItem {
    std::string name;
    bool available = false;
    std::string detail;
};

struct ProbeReport {
    std::vector<ProbeItem> items;
    std::string backend;  // "ebpf", "portable" or "none"
    std::string reason;   // why not eBPF, when it is not
};

// Tries each facility for real (loading and attaching the eBPF program,
// opening the netlink and fanotify channels) and releases it at once.
ProbeReport probeKernel();
std::string probeReportText(const ProbeReport& report);
std::string probeReportJson(const ProbeReport& report);

}  // namespace wlc

#endif
