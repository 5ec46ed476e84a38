#include "portable/portable_backend.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "portable/proc_info.h"

namespace wlc {

std::unique_ptr<CaptureBackend> makePortableBackend() { return std::make_unique<portable::PortableBackend>(); }

namespace portable {
namespace {

// Reads per wake-up, so one busy source cannot starve the other or stop.
constexpr int kConnectorReadsPerRound = 4096;
constexpr int kFanotifyReadsPerRound = 16;
constexpr int kIdleWakeMs = 1000;

constexpr uint32_t bit(EventKind kind) { return 1u << static_cast<int>(kind); }
constexpr uint32_t kFileKinds = bit(EventKind::FileCreation) | bit(EventKind::FileModification) |
                                bit(EventKind::FileDeletion) | bit(EventKind::FileRenaming) |
                                bit(EventKind::FileTimeChange);
constexpr uint32_t kSocketKinds = bit(EventKind::Connection) | bit(EventKind::Listening);

}  // namespace

PortableBackend::~PortableBackend() { stop(); }

bool PortableBackend::start(EventSink& sink, std::string& error) {
    std::lock_guard lock(lifecycle_);
    if (running_) {
        error = "portable back-end: already started";
        return false;
    }
    if (::geteuid() != 0) {
        error = "portable back-end: needs root (CAP_NET_ADMIN for process events, CAP_SYS_ADMIN for fanotify)";
        return false;
    }
    wake_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake_.valid()) {
        error = "portable back-end: eventfd failed";
        return false;
    }
    connector_ = std::make_unique<ProcConnector>();
    if (!connector_->open(error)) {
        release();
        return false;
    }

    uint32_t unsupported = bit(EventKind::DnsQuery);
    files_ = std::make_unique<FanotifyWatch>();
    fileProblem_.clear();
    if (files_->open(fileProblem_)) {
        mountInfo_.reset(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    } else {
        files_.reset();
        unsupported |= kFileKinds;
    }
    sockets_ = std::make_unique<SockDiagPoll>();
    socketProblem_.clear();
    if (!sockets_->open(socketProblem_)) {
        sockets_.reset();
        unsupported |= kSocketKinds;
    }
    unsupported_ = unsupported;

    sink_ = &sink;
    try {
        eventThread_ = std::thread([this] { eventLoop(); });
        if (sockets_) socketThread_ = std::thread([this] { socketLoop(); });
    } catch (const std::system_error& failure) {
        error = std::string("portable back-end: cannot start a thread: ") + failure.what();
        release();
        return false;
    }
    running_ = true;
    return true;
}

void PortableBackend::stop() {
    std::lock_guard lock(lifecycle_);
    release();
    running_ = false;
}

void PortableBackend::release() {
    if (wake_.valid()) {
        uint64_t one = 1;
        [[maybe_unused]] ssize_t written = ::write(wake_.get(), &one, sizeof(one));
    }
    if (eventThread_.joinable()) eventThread_.join();
    if (socketThread_.joinable()) socketThread_.join();
    connector_.reset();
    files_.reset();
    sockets_.reset();
    mountInfo_.reset();
    wake_.reset();
    sink_ = nullptr;
}

BackendCounters PortableBackend::counters() const {
    BackendCounters counters;
    counters.lostInKernel = lostInKernel_.load();
    counters.lostInBackend = lostInBackend_.load() + watched_.refused();
    return counters;
}

std::string PortableBackend::limitations() const {
    std::lock_guard lock(lifecycle_);
    std::string text = "DNS queries are not seen";
    if (!fileProblem_.empty()) {
        text += "; no file events: " + fileProblem_;
    } else if (files_) {
        std::string notes = files_->notes();
        if (!notes.empty()) text += "; " + notes;
    }
    if (!socketProblem_.empty()) {
        text += "; no connections or listening ports: " + socketProblem_;
    } else {
        text += "; a connection opened and closed within " + std::to_string(kSocketPollMs) + " ms may be missed";
        if (sockets_) {
            std::string notes = sockets_->notes();
            if (!notes.empty()) text += "; " + notes;
        }
    }
    return text;
}

void PortableBackend::eventLoop() {
    enum { kWake, kConnector, kFanotify, kMounts, kCount };
    pollfd fds[kCount] = {
        {wake_.get(), POLLIN, 0},
        {connector_->fd(), POLLIN, 0},
        {files_ ? files_->fd() : -1, POLLIN, 0},
        {files_ ? mountInfo_.get() : -1, POLLPRI, 0},
    };
    std::vector<HostEvent> out;
    std::vector<int32_t> pendingExits;
    // Processes watched before the start may have forked unseen.
    resync(out);
    deliver(out);
    while (true) {
        int ready = ::poll(fds, kCount, kIdleWakeMs);
        if (ready < 0 && errno != EINTR) break;
        if (ready > 0 && fds[kWake].revents) break;
        if (ready > 0 && (fds[kMounts].revents & (POLLPRI | POLLERR))) files_->refreshMounts();

        // Process events first, whichever woke us: a file event of a newly
        // forked child must find the child already watched.
        drainConnector(out, pendingExits);
        if (files_) {
            drainFiles(out);
            files_->expire();
            lostInKernel_ += files_->takeLostInKernel();
            lostInBackend_ += files_->takeLostInBackend();
        }
        applyExits(pendingExits, watched_, out);
        deliver(out);
    }
}

void PortableBackend::drainConnector(std::vector<HostEvent>& out, std::vector<int32_t>& pendingExits) {
    std::vector<ProcEvent> events;
    bool overflowed = false;
    for (int reads = 0; reads < kConnectorReadsPerRound; ++reads) {
        events.clear();
        std::size_t malformed = 0;
        ProcConnector::Read result = connector_->readOne(events, malformed);
        lostInBackend_ += malformed;
        if (result == ProcConnector::Read::Empty) break;
        if (result == ProcConnector::Read::Failed) {
            ++lostInBackend_;
            break;
        }
        if (result == ProcConnector::Read::Overflow) {
            ++lostInKernel_;
            overflowed = true;
            continue;
        }
        for (const ProcEvent& event : events) applyProcEvent(event, watched_, out, pendingExits);
    }
    if (overflowed) resync(out);
}

void PortableBackend::drainFiles(std::vector<HostEvent>& out) {
    for (int reads = 0; reads < kFanotifyReadsPerRound; ++reads) {
        FanotifyWatch::Read result = files_->readOnce(watched_, out);
        if (result == FanotifyWatch::Read::Empty) break;
        if (result == FanotifyWatch::Read::Failed) {
            ++lostInBackend_;
            break;
        }
    }
}

// Forks and exits went unseen: look at what /proc says now.
void PortableBackend::resync(std::vector<HostEvent>& out) {
    std::vector<int32_t> work = watched_.watchedPids();
    while (!work.empty()) {
        int32_t pid = work.back();
        work.pop_back();
        if (::kill(pid, 0) != 0 && errno == ESRCH) {
            if (watched_.onExit(pid)) {
                HostEvent gone;
                gone.kind = EventKind::Exit;
                gone.timeNs = realtimeNs();
                gone.pid = pid;
                out.push_back(std::move(gone));
            }
            continue;
        }
        for (int32_t child : readChildren(pid)) {
            if (watched_.isWatched(child) || !watched_.onFork(pid, child)) continue;
            HostEvent forked;
            forked.kind = EventKind::Fork;
            forked.timeNs = realtimeNs();
            forked.pid = child;
            forked.ppid = pid;
            out.push_back(std::move(forked));
            work.push_back(child);
        }
    }
}

void PortableBackend::socketLoop() {
    pollfd wake{wake_.get(), POLLIN, 0};
    std::vector<HostEvent> out;
    while (true) {
        int ready = ::poll(&wake, 1, kSocketPollMs);
        if (ready > 0 || (ready < 0 && errno != EINTR)) break;
        sockets_->pollOnce(watched_, out);
        lostInBackend_ += sockets_->takeLost();
        deliver(out);
    }
}

void PortableBackend::deliver(std::vector<HostEvent>& events) {
    for (HostEvent& event : events) sink_->onEvent(std::move(event));
    events.clear();
}

}  // namespace portable
}  // namespace wlc
