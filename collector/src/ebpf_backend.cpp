// The "ebpf" capture back-end: loads collector.bpf.c through its libbpf
// skeleton, keeps the kernel's map of watched pids, and turns the ring
// buffer's records (collector_events.h) into HostEvents on a thread of its own.
#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <netinet/in.h>
#include <string>
#include <thread>
#include <vector>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include "capture_backend.h"
#include "../bpf/collector_events.h"  // shared with the BPF program
#include "collector.skel.h"

namespace wlc {

static_assert(WLC_K_COUNT == kEventKindCount, "collector_events.h and host_event.h disagree on the kinds");
static_assert(WLC_K_PROCESS_CREATION == static_cast<int>(EventKind::ProcessCreation) &&
                  WLC_K_FILE_CREATION == static_cast<int>(EventKind::FileCreation) &&
                  WLC_K_FILE_MODIFICATION == static_cast<int>(EventKind::FileModification) &&
                  WLC_K_FILE_DELETION == static_cast<int>(EventKind::FileDeletion) &&
                  WLC_K_FILE_RENAMING == static_cast<int>(EventKind::FileRenaming) &&
                  WLC_K_FILE_TIME_CHANGE == static_cast<int>(EventKind::FileTimeChange) &&
                  WLC_K_CONNECTION == static_cast<int>(EventKind::Connection) &&
                  WLC_K_DNS_QUERY == static_cast<int>(EventKind::DnsQuery) &&
                  WLC_K_LISTENING == static_cast<int>(EventKind::Listening) &&
                  WLC_K_FORK == static_cast<int>(EventKind::Fork) && WLC_K_EXIT == static_cast<int>(EventKind::Exit),
              "collector_events.h and host_event.h disagree on the kinds");

namespace {

// ---- libbpf's messages, caught while loading --------------------------------

// libbpf has one global print hook. While start() runs it points here, and
// what libbpf says (warnings: why a load or attach failed, the verifier's
// log) is kept for the error string instead of going to stderr.
std::mutex gLibbpfLogMutex;
std::string gLibbpfLog;

int captureLibbpf(enum libbpf_print_level level, const char* format, va_list args) {
    if (level == LIBBPF_DEBUG) return 0;
    char line[1024];
    vsnprintf(line, sizeof line, format, args);
    std::lock_guard<std::mutex> lock(gLibbpfLogMutex);
    gLibbpfLog += line;
    constexpr size_t kKeep = 64 * 1024;  // the verifier's log can be long; its end says why
    if (gLibbpfLog.size() > kKeep) gLibbpfLog.erase(0, gLibbpfLog.size() - kKeep);
    return 0;
}

// The last lines libbpf printed, on one line, at most `room` characters.
std::string libbpfTail(size_t room = 1500) {
    std::string text;
    {
        std::lock_guard<std::mutex> lock(gLibbpfLogMutex);
        text = gLibbpfLog;
    }
    std::string out;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(at, end - at);
        at = end + 1;
        if (line.rfind("libbpf: ", 0) == 0) line.erase(0, 8);
        if (line.empty()) continue;
        if (!out.empty()) out += " | ";
        out += line;
    }
    while (!out.empty() && (out.back() == ' ' || out.back() == '|')) out.pop_back();
    if (out.size() > room) out = "..." + out.substr(out.size() - room);
    return out;
}

// Points libbpf's print hook at captureLibbpf for its lifetime.
class LibbpfLogCapture {
public:
    LibbpfLogCapture() {
        {
            std::lock_guard<std::mutex> lock(gLibbpfLogMutex);
            gLibbpfLog.clear();
        }
        previous_ = libbpf_set_print(captureLibbpf);
    }
    ~LibbpfLogCapture() { libbpf_set_print(previous_); }
    LibbpfLogCapture(const LibbpfLogCapture&) = delete;
    LibbpfLogCapture& operator=(const LibbpfLogCapture&) = delete;

private:
    libbpf_print_fn_t previous_;
};

std::string failure(const char* step, int err) {
    err = err < 0 ? -err : err;
    std::string msg = std::string("BPF program failed to ") + step + ": " + strerror(err);
    if (err == EPERM || err == EACCES) msg += " (needs root, or CAP_BPF with CAP_PERFMON)";
    std::string tail = libbpfTail();
    if (!tail.empty()) msg += "; libbpf: " + tail;
    return msg;
}

// CLOCK_REALTIME - CLOCK_MONOTONIC, to place bpf_ktime_get_ns() in real time.
int64_t realtimeOffsetNs() {
    timespec rt{}, mono{};
    clock_gettime(CLOCK_REALTIME, &rt);
    clock_gettime(CLOCK_MONOTONIC, &mono);
    return (int64_t(rt.tv_sec) - mono.tv_sec) * 1000000000LL + (int64_t(rt.tv_nsec) - mono.tv_nsec);
}

// How long the delivery thread waits before it looks for records the
// program did not wake it for: just after records came (a little more than
// the program's WLC_WAKEUP_NS), and when quiet.
constexpr int kBusySweepMs = 3;
constexpr int kIdleSweepMs = 50;

std::string boundedString(const char* text, size_t room) { return std::string(text, strnlen(text, room)); }

// ---- the back-end ---------------------------------------------------------------

class EbpfBackend final : public CaptureBackend {
public:
    ~EbpfBackend() override { stop(); }

    const char* name() const override { return "ebpf"; }

    bool start(EventSink& sink, std::string& error) override {
        std::lock_guard<std::mutex> life(lifecycle_);
        if (skel_) {
            error = "the eBPF back-end is already running";
            return false;
        }
        collector_bpf* skel = nullptr;
        {
            LibbpfLogCapture capture;
            skel = collector_bpf__open();
            if (!skel) {
                error = failure("open", errno);
                return false;
            }
            int err = collector_bpf__load(skel);
            if (!err) {
                err = collector_bpf__attach(skel);
                if (err) error = failure("attach", err);
            } else {
                error = failure("load", err);
            }
            if (err) {
                collector_bpf__destroy(skel);  // detaches whatever was attached
                return false;
            }
        }
        // Event delivery: an epoll set over the ring buffer and an eventfd
        // that stop() signals, so the thread wakes at once to end.
        ring_buffer* rb = ring_buffer__new(bpf_map__fd(skel->maps.events), &EbpfBackend::onRecord, this, nullptr);
        int stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        int epollFd = epoll_create1(EPOLL_CLOEXEC);
        bool ok = rb && stopFd >= 0 && epollFd >= 0;
        if (ok) {
            epoll_event ev{};
            ev.events = EPOLLIN;
            ev.data.fd = ring_buffer__epoll_fd(rb);
            ok = epoll_ctl(epollFd, EPOLL_CTL_ADD, ev.data.fd, &ev) == 0;
            ev.data.fd = stopFd;
            ok = ok && epoll_ctl(epollFd, EPOLL_CTL_ADD, stopFd, &ev) == 0;
        }
        if (!ok) {
            error = std::string("eBPF back-end: cannot set up the ring buffer reader: ") + strerror(errno);
            if (rb) ring_buffer__free(rb);
            if (stopFd >= 0) close(stopFd);
            if (epollFd >= 0) close(epollFd);
            collector_bpf__destroy(skel);
            return false;
        }
        {
            std::unique_lock<std::shared_mutex> lock(mapMutex_);
            skel_ = skel;
            lostAtStop_ = {};
        }
        lostInBackend_ = 0;
        rb_ = rb;
        stopFd_ = stopFd;
        epollFd_ = epollFd;
        sink_ = &sink;
        offsetNs_ = realtimeOffsetNs();
        thread_ = std::thread([this] { run(); });
        return true;
    }

    void stop() override {
        std::lock_guard<std::mutex> life(lifecycle_);
        if (!skel_) return;
        // The map lock is not held while joining: the sink may ask
        // isWatched() from the delivery thread.
        uint64_t one = 1;
        if (write(stopFd_, &one, sizeof one) < 0) {
            // an eventfd write cannot fail here (counter far from overflow)
        }
        thread_.join();
        ring_buffer__free(rb_);
        close(stopFd_);
        close(epollFd_);
        auto lost = lostPerKind();
        {
            std::unique_lock<std::shared_mutex> lock(mapMutex_);
            lostAtStop_ = lost;             // counters() still tell after stop()
            collector_bpf__destroy(skel_);  // detaches the programs, frees the maps
            skel_ = nullptr;
        }
        rb_ = nullptr;
        stopFd_ = epollFd_ = -1;
        sink_ = nullptr;
    }

    // The map is the kernel's: while stopped there is none, and watch() and
    // unwatch() do nothing (the collector subscribes after start()).
    void watch(int32_t pid) override {
        std::shared_lock<std::shared_mutex> lock(mapMutex_);
        if (!skel_ || pid <= 0) return;
        uint32_t key = pid, root = pid;
        // A full map (WLC_MAX_WATCHED) leaves pid unwatched: isWatched() says so.
        bpf_map_update_elem(watchedFd(), &key, &root, BPF_ANY);
    }

    void unwatch(int32_t pid) override {
        std::shared_lock<std::shared_mutex> lock(mapMutex_);
        if (!skel_ || pid <= 0) return;
        int fd = watchedFd();
        uint32_t root = pid;
        // The root first, so that it forks no new watched children; then
        // everything watched for it. A child forked by one of those while
        // we walk the map gets in after our look: a second walk takes it.
        bpf_map_delete_elem(fd, &root);
        for (int pass = 0; pass < 2; ++pass) {
            std::vector<uint32_t> doomed;
            uint32_t key = 0, next = 0;
            uint32_t* prev = nullptr;
            while (bpf_map_get_next_key(fd, prev, &next) == 0) {
                uint32_t value = 0;
                if (bpf_map_lookup_elem(fd, &next, &value) == 0 && value == root) doomed.push_back(next);
                key = next;
                prev = &key;
            }
            for (uint32_t k : doomed) bpf_map_delete_elem(fd, &k);
            if (doomed.empty()) break;
        }
    }

    bool isWatched(int32_t pid) const override {
        std::shared_lock<std::shared_mutex> lock(mapMutex_);
        if (!skel_ || pid <= 0) return false;
        uint32_t key = pid, root = 0;
        return bpf_map_lookup_elem(watchedFd(), &key, &root) == 0;
    }

    uint32_t unsupportedKinds() const override { return 0; }

    BackendCounters counters() const override {
        BackendCounters c;
        c.lostInKernelByKind = lostPerKind();
        for (uint64_t n : c.lostInKernelByKind) c.lostInKernel += n;
        c.lostInBackend = lostInBackend_.load(std::memory_order_relaxed);
        return c;
    }

    std::array<uint64_t, kEventKindCount> lostPerKind() const {
        std::array<uint64_t, kEventKindCount> out{};
        std::shared_lock<std::shared_mutex> lock(mapMutex_);
        if (!skel_) return lostAtStop_;
        int cpus = libbpf_num_possible_cpus();
        if (cpus <= 0) return out;
        std::vector<uint64_t> perCpu(cpus);
        int fd = bpf_map__fd(skel_->maps.lost);
        for (uint32_t kind = 0; kind < uint32_t(kEventKindCount); ++kind) {
            if (bpf_map_lookup_elem(fd, &kind, perCpu.data()) != 0) continue;
            for (uint64_t n : perCpu) out[kind] += n;
        }
        return out;
    }

private:
    int watchedFd() const { return bpf_map__fd(skel_->maps.watched); }

    // The delivery thread: wait for records or the stop signal, hand over
    // what the ring buffer holds, and once more before ending.
    void run() {
        int rbFd = ring_buffer__epoll_fd(rb_);
        bool stopping = false;
        int timeoutMs = kIdleSweepMs;
        while (!stopping) {
            epoll_event evs[2];
            int n = epoll_wait(epollFd_, evs, 2, timeoutMs);
            if (n < 0 && errno != EINTR) break;
            for (int i = 0; i < n; ++i) {
                if (evs[i].data.fd != rbFd) stopping = true;
            }
            // Track clock steps (settimeofday, NTP) between batches.
            offsetNs_ = realtimeOffsetNs();
            int got = ring_buffer__consume(rb_);
            // The program wakes us for the first records of a batch only
            // (collector.bpf.c, submit()): while records come, look again
            // soon for those it did not wake us for; when quiet, seldom.
            timeoutMs = got > 0 ? kBusySweepMs : kIdleSweepMs;
        }
    }

    static int onRecord(void* ctx, void* data, size_t size) {
        auto* self = static_cast<EbpfBackend*>(ctx);
        HostEvent ev;
        if (self->decode(static_cast<const uint8_t*>(data), size, ev)) {
            self->sink_->onEvent(std::move(ev));
        } else {
            self->lostInBackend_.fetch_add(1, std::memory_order_relaxed);
        }
        return 0;
    }

    bool decode(const uint8_t* data, size_t size, HostEvent& ev) const {
        wlc_hdr h;
        if (size < sizeof h) return false;
        memcpy(&h, data, sizeof h);
        if (h.kind >= WLC_K_COUNT) return false;
        ev.kind = static_cast<EventKind>(h.kind);
        ev.timeNs = h.time_ns + offsetNs_;
        ev.pid = h.pid;
        ev.ppid = h.ppid;
        ev.uid = h.uid;
        switch (h.kind) {
            case WLC_K_FORK:
            case WLC_K_EXIT: return true;
            case WLC_K_PROCESS_CREATION:
                return size >= sizeof(wlc_proc_event) &&
                       decodeProcess(*reinterpret_cast<const wlc_proc_event*>(data), ev);
            case WLC_K_CONNECTION:
            case WLC_K_LISTENING:
                return size >= sizeof(wlc_net_event) && decodeNet(*reinterpret_cast<const wlc_net_event*>(data), ev);
            case WLC_K_DNS_QUERY:
                return size >= sizeof(wlc_dns_event) && decodeDns(*reinterpret_cast<const wlc_dns_event*>(data), ev);
            default:
                return size >= sizeof(wlc_file_event) && decodeFile(*reinterpret_cast<const wlc_file_event*>(data), ev);
        }
    }

    static bool decodeProcess(const wlc_proc_event& e, HostEvent& ev) {
        ev.path = boundedString(e.path, sizeof e.path);
        // Arguments are NUL-separated (the last one NUL-terminated): blanks.
        size_t len = e.cmdline_len < sizeof e.cmdline ? e.cmdline_len : sizeof e.cmdline;
        ev.cmdline.assign(e.cmdline, len);
        while (!ev.cmdline.empty() && ev.cmdline.back() == '\0') ev.cmdline.pop_back();
        for (char& c : ev.cmdline) {
            if (c == '\0') c = ' ';
        }
        return true;
    }

    static bool decodeFile(const wlc_file_event& e, HostEvent& ev) {
        ev.path = boundedString(e.path, sizeof e.path);
        if (ev.kind == EventKind::FileRenaming) ev.path2 = boundedString(e.path2, sizeof e.path2);
        ev.dirFd = e.dirfd;
        // The process's memory could not be read: a record without its path
        // says nothing.
        return !ev.path.empty() && (ev.kind != EventKind::FileRenaming || !ev.path2.empty());
    }

    static bool decodeNet(const wlc_net_event& e, HostEvent& ev) {
        if (e.family != AF_INET && e.family != AF_INET6) return false;
        ev.family = e.family;
        ev.protocol = e.protocol;
        size_t addrLen = e.family == AF_INET ? 4 : 16;
        memcpy(ev.srcAddr.data(), e.saddr, addrLen);
        memcpy(ev.dstAddr.data(), e.daddr, addrLen);
        ev.srcPort = e.sport;
        ev.dstPort = e.dport;
        return true;
    }

    static bool decodeDns(const wlc_dns_event& e, HostEvent& ev) {
        if (!decodeNet(e.n, ev)) return false;
        size_t len = e.payload_len < sizeof e.payload ? e.payload_len : sizeof e.payload;
        const uint8_t* bytes = e.payload;
        // Over TCP a DNS message goes behind a two-byte length: drop it when
        // the buffer starts with one that matches what was sent.
        if (e.n.protocol == IPPROTO_TCP && len >= 2 && ((size_t(bytes[0]) << 8) | bytes[1]) + 2 == e.sent_len) {
            bytes += 2;
            len -= 2;
        }
        if (len == 0) return false;
        ev.payload.assign(bytes, bytes + len);
        return true;
    }

    std::mutex lifecycle_;                // start() against stop()
    mutable std::shared_mutex mapMutex_;  // skel_ (the maps) against their users
    collector_bpf* skel_ = nullptr;
    ring_buffer* rb_ = nullptr;
    int stopFd_ = -1;
    int epollFd_ = -1;
    EventSink* sink_ = nullptr;
    std::thread thread_;
    int64_t offsetNs_ = 0;  // written and read on the delivery thread (set before it starts)
    std::atomic<uint64_t> lostInBackend_{0};
    std::array<uint64_t, kEventKindCount> lostAtStop_{};  // the kernel's counts, kept at stop()
};

}  // namespace

std::unique_ptr<CaptureBackend> makeEbpfBackend() { return std::make_unique<EbpfBackend>(); }

}  // namespace wlc
