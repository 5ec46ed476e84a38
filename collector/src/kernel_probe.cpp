#include "kernel_probe.h"

#include <linux/connector.h>
#include <linux/netlink.h>
#include <sys/fanotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <bpf/libbpf.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstring>
#include <fcntl.h>

#include "capture_backend.h"
#include "wl_unique_fd.h"

namespace wlc {
namespace {

class NullSink : public EventSink {
public:
    void onEvent(HostEvent&&) override {}
};

ProbeItem check(const char* name, bool ok, std::string detail = {}) { return ProbeItem{name, ok, std::move(detail)}; }

ProbeItem procConnector() {
    wl::UniqueFd fd(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR));
    if (!fd.valid()) return check("proc connector", false, std::strerror(errno));
    sockaddr_nl addr{};
    addr.nl_family = AF_NETLINK;
    addr.nl_groups = CN_IDX_PROC;
    addr.nl_pid = 0;
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
        return check("proc connector", false, std::strerror(errno));
    return check("proc connector", true);
}

ProbeItem fanotify() {
    wl::UniqueFd fd(::fanotify_init(FAN_CLASS_NOTIF | FAN_REPORT_DFID_NAME | FAN_CLOEXEC, O_RDONLY | O_LARGEFILE));
    if (!fd.valid()) return check("fanotify (names reported)", false, std::strerror(errno));
    return check("fanotify (names reported)", true);
}

}  // namespace

ProbeReport probeKernel() {
    ProbeReport report;
    bool root = ::geteuid() == 0;
    report.items.push_back(check("root", root, root ? "" : "the collector must run as root"));
    bool btf = ::access("/sys/kernel/btf/vmlinux", R_OK) == 0;
    report.items.push_back(check("BTF (/sys/kernel/btf/vmlinux)", btf));
    report.items.push_back(check("ring buffer maps", libbpf_probe_bpf_map_type(BPF_MAP_TYPE_RINGBUF, nullptr) == 1));
    report.items.push_back(
        check("raw_tp programs", libbpf_probe_bpf_prog_type(BPF_PROG_TYPE_RAW_TRACEPOINT, nullptr) == 1));

    NullSink sink;
    std::string error;
    std::unique_ptr<CaptureBackend> ebpf = makeEbpfBackend();
    bool ebpfRuns = root && ebpf->start(sink, error);
    if (ebpfRuns) ebpf->stop();
    if (!root) error = "not root";
    // A tp_btf program needs a BTF target to load at all, so the real program
    // is the probe of it.
    report.items.push_back(
        check("tp_btf programs", ebpfRuns || libbpf_probe_bpf_prog_type(BPF_PROG_TYPE_TRACING, nullptr) == 1));
    report.items.push_back(check("eBPF program loads and attaches", ebpfRuns, error));
    report.items.push_back(procConnector());
    report.items.push_back(fanotify());

    if (ebpfRuns) {
        report.backend = "ebpf";
    } else {
        report.reason = error;
        std::unique_ptr<CaptureBackend> portable = makePortableBackend();
        std::string portableError;
        bool portableRuns = root && portable->start(sink, portableError);
        if (portableRuns) portable->stop();
        report.backend = portableRuns ? "portable" : "none";
        if (!portableRuns) report.reason += root ? "; portable: " + portableError : "";
    }
    return report;
}

std::string probeReportText(const ProbeReport& report) {
    std::string text;
    for (const ProbeItem& item : report.items) {
        text += (item.available ? "  yes  " : "  no   ") + item.name;
        if (!item.detail.empty()) text += " (" + item.detail + ")";
        text += "\n";
    }
    text += "back-end: " + report.backend;
    if (!report.reason.empty()) text += " (eBPF unavailable: " + report.reason + ")";
    return text + "\n";
}

std::string probeReportJson(const ProbeReport& report) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
    w.StartObject();
    w.Key("checks");
    w.StartObject();
    for (const ProbeItem& item : report.items) {
        w.Key(item.name.c_str());
        w.Bool(item.available);
    }
    w.EndObject();
    w.Key("backend");
    w.String(report.backend.c_str());
    w.Key("reason");
    w.String(report.reason.c_str());
    w.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}

}  // namespace wlc
