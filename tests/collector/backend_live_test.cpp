// Both capture back-ends against the real kernel, as root (skipped
// otherwise): one table of actions a watched worker does and the events each
// must produce, run against each back-end. A back-end skips the kinds it
// says it cannot see here.
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "capture_backend.h"
#include "dns_query.h"
#include "portable/portable_backend.h"
#include "recording_sink.h"
#include "workload.h"

namespace {

using namespace std::chrono_literals;
using wlc::EventKind;
using wlc::HostEvent;

struct BackendUnderTest {
    const char* name;
    std::unique_ptr<wlc::CaptureBackend> (*make)();
    // The eBPF back-end reports paths as the process named them; the
    // portable one resolves them (fanotify names a file by its directory,
    // /proc a program by its link).
    bool pathsAsNamed;
    // The eBPF back-end reports no peer for a listener, the portable one
    // the listened address on both sides.
    bool listenerHasNoPeer;
    // The portable back-end polls sockets every 250 ms.
    int holdSocketsMs;
    // Whether the kernel may lack what it needs (then it skips).
    bool mayBeUnavailable;
    // The portable back-end takes watches before it starts (and adopts
    // their children then).
    bool watchesBeforeStart;
    const char* refusal;  // in start()'s error without root
};
const BackendUnderTest kEbpf{"ebpf", wlc::makeEbpfBackend, true, true, 0, true, false, "BPF program failed to"};
const BackendUnderTest kPortable{"portable", wlc::makePortableBackend, false, false, 600, false, true, "root"};

void PrintTo(const BackendUnderTest& b, std::ostream* out) { *out << b.name; }
std::string backendName(const ::testing::TestParamInfo<BackendUnderTest>& info) { return info.param.name; }

class LiveBackend : public ::testing::TestWithParam<BackendUnderTest> {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "the back-ends watch processes as root only";
        backend_ = GetParam().make();
        EXPECT_STREQ(backend_->name(), GetParam().name);
        std::string error;
        if (!backend_->start(sink_, error)) {
            if (GetParam().mayBeUnavailable) GTEST_SKIP() << "cannot run here: " << error;
            FAIL() << error;
        }
        char dir[] = "/tmp/wlc-live-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        listen4_ = loopbackListener(AF_INET, &port4_);
        listen6_ = loopbackListener(AF_INET6, &port6_);
        ASSERT_GE(listen4_, 0);
    }
    void TearDown() override {
        if (backend_) {
            backend_->stop();
            backend_->stop();  // twice is fine
        }
        if (listen4_ >= 0) close(listen4_);
        if (listen6_ >= 0) close(listen6_);
        if (!dir_.empty()) std::filesystem::remove_all(dir_);
    }
    WorkloadConfig config(const std::string& tag) {
        WorkloadConfig c = makeWorkloadConfig(dir_, tag, port4_, port6_);
        c.holdMs = GetParam().holdSocketsMs;
        return c;
    }
    bool unsupported(EventKind kind) const { return backend_->unsupportedKinds() & (1u << static_cast<int>(kind)); }

    std::unique_ptr<wlc::CaptureBackend> backend_;
    RecordingSink sink_;
    std::string dir_;
    int listen4_ = -1, listen6_ = -1;
    uint16_t port4_ = 0, port6_ = 0;
};

// What one Op of a watched worker must produce: events of these kinds from
// the worker (or, for pidFromAck, from the pid it answered), each passing
// its check.
using Check = std::function<bool(const HostEvent&, const WorkloadConfig&, int32_t ack, const BackendUnderTest&)>;
struct Expect {
    EventKind kind;
    Check check;
    bool pidFromAck = false;
};
struct Case {
    const char* name;
    Op op;
    std::vector<Expect> expect;
};

bool dnsTo(const HostEvent& e, int family, const char* dst, const char* name) {
    return e.family == family && e.dstPort == 53 && e.dstAddr == addr(family, dst) && e.protocol == IPPROTO_UDP &&
           e.srcPort != 0 &&
           wlc::parseDnsQueryName(e.payload.data(), e.payload.size()).value_or("<unparsable>") == name;
}
bool tcpBetween(const HostEvent& e, int family, const char* loopback, uint16_t dstPort, int32_t srcPort) {
    return e.family == family && e.protocol == IPPROTO_TCP && e.dstPort == dstPort && e.srcPort == srcPort &&
           srcPort != 0 && e.dstAddr == addr(family, loopback) && e.srcAddr == addr(family, loopback);
}

const std::vector<Case>& cases() {
    using C = const WorkloadConfig&;
    using B = const BackendUnderTest&;
    static const std::vector<Case> table = {
        {"fork and exec",
         Op::ForkExec,
         {{EventKind::Fork, [](const HostEvent&, C, int32_t, B) { return true; }, true},
          {EventKind::ProcessCreation,
           [](const HostEvent& e, C, int32_t, B b) {
               std::string program = b.pathsAsNamed ? "/bin/sleep" : std::filesystem::canonical("/bin/sleep");
               return e.path == program && e.cmdline == "/bin/sleep 0.3" && e.uid == getuid();
           },
           true},
          {EventKind::Exit, [](const HostEvent&, C, int32_t, B) { return true; }, true}}},
        {"create",
         Op::Create,
         {{EventKind::FileCreation,
           [](const HostEvent& e, C c, int32_t, B) {
               auto now = std::chrono::system_clock::now().time_since_epoch();
               int64_t skew = int64_t(e.timeNs) - std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
               return e.path == c.a && e.dirFd == AT_FDCWD && e.uid == getuid() && skew < 0 && skew > -10'000'000'000;
           }}}},
        {"create relative to a directory fd",
         Op::CreateAt,
         {{EventKind::FileCreation,
           [](const HostEvent& e, C c, int32_t dirFd, B b) {
               return b.pathsAsNamed ? e.path == c.rel && e.dirFd == dirFd : e.path == std::string(c.dir) + "/" + c.rel;
           }}}},
        {"write to an existing file",
         Op::Modify,
         {{EventKind::FileModification, [](const HostEvent& e, C c, int32_t, B) { return e.path == c.e; }}}},
        {"create, the name on a page not yet touched",
         Op::ColdPath,
         {{EventKind::FileCreation, [](const HostEvent& e, C c, int32_t, B) { return e.path == c.cold; }}}},
        {"read only: nothing", Op::ReadOnly, {}},
        {"write to /dev/null: nothing", Op::DevNull, {}},
        {"truncate",
         Op::Truncate,
         {{EventKind::FileModification, [](const HostEvent& e, C c, int32_t, B) { return e.path == c.f; }}}},
        {"rename",
         Op::Rename,
         {{EventKind::FileRenaming,
           [](const HostEvent& e, C c, int32_t, B) { return e.path == c.a && e.path2 == c.b; }}}},
        {"utimensat",
         Op::TouchTimes,
         {{EventKind::FileTimeChange, [](const HostEvent& e, C c, int32_t, B) { return e.path == c.b; }}}},
        {"unlink",
         Op::Unlink,
         {{EventKind::FileDeletion, [](const HostEvent& e, C c, int32_t, B) { return e.path == c.b; }}}},
        {"rmdir: nothing", Op::RemoveDir, {}},
        {"connect IPv4",
         Op::ConnectV4,
         {{EventKind::Connection, [](const HostEvent& e, C c, int32_t port,
                                     B) { return tcpBetween(e, AF_INET, "127.0.0.1", c.v4Port, port); }}}},
        {"connect IPv6",
         Op::ConnectV6,
         {{EventKind::Connection,
           [](const HostEvent& e, C c, int32_t port, B) { return tcpBetween(e, AF_INET6, "::1", c.v6Port, port); }}}},
        {"listen",
         Op::Listen,
         {{EventKind::Listening,
           [](const HostEvent& e, C, int32_t port, B b) {
               bool peer = b.listenerHasNoPeer ? e.dstPort == 0 && e.dstAddr == std::array<uint8_t, 16>{}
                                               : e.dstPort == port && e.dstAddr == e.srcAddr;
               return e.family == AF_INET && e.protocol == IPPROTO_TCP && e.srcPort == port &&
                      e.srcAddr == addr(AF_INET, "127.0.0.1") && peer;
           }}}},
        {"DNS by sendto",
         Op::DnsSendto,
         {{EventKind::DnsQuery,
           [](const HostEvent& e, C, int32_t, B) { return dnsTo(e, AF_INET, "127.0.0.1", "sendto.wlc.test"); }}}},
        {"DNS by sendto over IPv6",
         Op::DnsSendtoV6,
         {{EventKind::DnsQuery,
           [](const HostEvent& e, C, int32_t, B) { return dnsTo(e, AF_INET6, "::1", "sendto6.wlc.test"); }}}},
        {"DNS on a connected socket",
         Op::DnsConnected,
         {{EventKind::Connection,
           [](const HostEvent& e, C, int32_t, B) {
               return e.family == AF_INET && e.protocol == IPPROTO_UDP && e.dstPort == 53 && e.srcPort != 0;
           }},
          {EventKind::DnsQuery,
           [](const HostEvent& e, C, int32_t, B) { return dnsTo(e, AF_INET, "127.0.0.1", "connected.wlc.test"); }}}},
        {"DNS by sendmsg",
         Op::DnsSendmsg,
         {{EventKind::DnsQuery,
           [](const HostEvent& e, C, int32_t, B) { return dnsTo(e, AF_INET, "127.0.0.1", "sendmsg.wlc.test"); }}}},
        {"DNS by sendmmsg: the first message",
         Op::DnsSendmmsg,
         {{EventKind::DnsQuery,
           [](const HostEvent& e, C, int32_t, B) { return dnsTo(e, AF_INET, "127.0.0.1", "mmsg.wlc.test"); }}}},
    };
    return table;
}

TEST_P(LiveBackend, ReportsWhatAWatchedProcessDoesAndNothingOfOthers) {
    // The unwatched sibling goes first: had it been reported, its events
    // would come before the watched worker's last one.
    Worker sibling(config("sibling"));
    std::set<int32_t> siblingPids = {sibling.pid()};
    size_t start = sink_.mark();
    for (const Case& c : cases()) {
        if (c.op == Op::ConnectV6 && port6_ == 0) continue;
        int32_t ack = sibling.run(c.op);
        EXPECT_GE(ack, 0) << "sibling: " << c.name << ": " << strerror(-ack);
        if (c.op == Op::ForkExec) siblingPids.insert(ack);
    }

    Worker worker(config("watched"));
    ASSERT_GT(worker.pid(), 0);
    backend_->watch(worker.pid());
    EXPECT_TRUE(backend_->isWatched(worker.pid()));
    EXPECT_FALSE(backend_->isWatched(sibling.pid()));
    for (const Case& c : cases()) {
        SCOPED_TRACE(c.name);
        if (c.op == Op::ConnectV6 && port6_ == 0) {
            std::cout << "[ SKIPPED  ] " << c.name << ": no IPv6 loopback\n";
            continue;
        }
        size_t from = sink_.mark();
        int32_t ack = worker.run(c.op);
        ASSERT_GE(ack, 0) << strerror(-ack);
        for (const Expect& x : c.expect) {
            if (unsupported(x.kind)) {
                std::cout << "[ SKIPPED  ] " << c.name << ": " << GetParam().name << " cannot see "
                          << wlc::eventKindName(x.kind) << " here\n";
                continue;
            }
            int32_t pid = x.pidFromAck ? ack : worker.pid();
            auto got = sink_.waitFor(from, [&](const HostEvent& e) {
                // The worker's child names the worker as its parent.
                bool parent = !x.pidFromAck || x.kind == EventKind::Exit || e.ppid == worker.pid();
                return e.kind == x.kind && e.pid == pid && parent && x.check(e, worker.config(), ack, GetParam());
            });
            EXPECT_TRUE(got) << "no matching " << wlc::eventKindName(x.kind) << " event from " << pid;
        }
    }
    // Nothing from the sibling and its child, nothing for a read or a
    // directory; the creation's own write is part of it; one connect is one
    // connection, however long it stays open.
    const WorkloadConfig& wc = worker.config();
    const std::string siblingFiles = dir_ + "/sibling-";
    EXPECT_EQ(sink_.count(start,
                          [&](const HostEvent& e) {
                              return siblingPids.count(e.pid) != 0 || siblingPids.count(e.ppid) != 0 ||
                                     e.path.rfind(siblingFiles, 0) == 0;
                          }),
              0u);
    EXPECT_EQ(sink_.count(
                  start, [&](const HostEvent& e) { return e.path == wc.c || e.path == wc.d || e.path == "/dev/null"; }),
              0u);
    EXPECT_EQ(
        sink_.count(start, [&](const HostEvent& e) { return e.kind == EventKind::FileModification && e.path == wc.a; }),
        0u);
    EXPECT_EQ(sink_.count(start,
                          [&](const HostEvent& e) {
                              return e.kind == EventKind::Connection && e.pid == worker.pid() && e.dstPort == port4_;
                          }),
              1u);
    EXPECT_EQ(sink_.count(start, [](const HostEvent& e) { return e.timeNs < 1600000000ull * 1000000000ull; }), 0u);
    EXPECT_EQ(backend_->counters().lostInKernel, 0u);
    EXPECT_EQ(backend_->counters().lostInBackend, 0u);
    backend_->unwatch(worker.pid());
}

TEST_P(LiveBackend, ChildrenOfAWatchedProcessAreWatchedUntilTheyExit) {
    Worker worker(config("parent"));
    backend_->watch(worker.pid());
    size_t from = sink_.mark();
    int32_t gc = worker.run(Op::ForkGrandchild);
    ASSERT_GT(gc, 0);
    auto fork = sink_.waitFor(from, [&](const HostEvent& e) { return e.kind == EventKind::Fork && e.pid == gc; });
    ASSERT_TRUE(fork);
    EXPECT_EQ(fork->ppid, worker.pid());
    EXPECT_TRUE(backend_->isWatched(gc));

    ASSERT_TRUE(worker.releaseGrandchild());
    EXPECT_TRUE(sink_.waitFor(from, [&](const HostEvent& e) {
        return e.kind == EventKind::FileCreation && e.pid == gc && e.path == worker.config().gc;
    }));
    EXPECT_TRUE(sink_.waitFor(from, [&](const HostEvent& e) { return e.kind == EventKind::Exit && e.pid == gc; }));
    EXPECT_FALSE(backend_->isWatched(gc));
    EXPECT_TRUE(backend_->isWatched(worker.pid()));
    backend_->unwatch(worker.pid());
}

TEST_P(LiveBackend, UnwatchStopsTheRootAndItsChildren) {
    Worker worker(config("unwatched-root"));
    Worker fence(config("fence"));
    backend_->watch(worker.pid());
    backend_->watch(fence.pid());
    size_t from = sink_.mark();
    int32_t gc = worker.run(Op::ForkGrandchild);
    ASSERT_GT(gc, 0);
    ASSERT_TRUE(sink_.waitFor(from, [&](const HostEvent& e) { return e.kind == EventKind::Fork && e.pid == gc; }));

    backend_->unwatch(worker.pid());
    EXPECT_FALSE(backend_->isWatched(worker.pid()));
    EXPECT_FALSE(backend_->isWatched(gc));
    EXPECT_TRUE(backend_->isWatched(fence.pid()));
    size_t after = sink_.mark();
    ASSERT_EQ(worker.run(Op::Create), 0);
    ASSERT_TRUE(worker.releaseGrandchild());
    ASSERT_TRUE(processGone(gc, 5s));
    // Once the fence's event is in, the others would have been too.
    ASSERT_EQ(fence.run(Op::Create), 0);
    ASSERT_TRUE(sink_.waitFor(after, [&](const HostEvent& e) { return e.pid == fence.pid(); }));
    EXPECT_EQ(sink_.count(after, [&](const HostEvent& e) { return e.pid == worker.pid() || e.pid == gc; }), 0u);
    backend_->unwatch(fence.pid());
}

INSTANTIATE_TEST_SUITE_P(Both, LiveBackend, ::testing::Values(kEbpf, kPortable), backendName);

TEST(LiveBackendWithoutRoot, RefusesWithAClearReason) {
    // As root, in a child that gave root up (fresh: no back-end threads yet).
    for (const BackendUnderTest& b : {kEbpf, kPortable}) {
        pid_t child = fork();
        if (child == 0) {
            if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
                                   setresuid(65534, 65534, 65534) != 0)) {
                _exit(2);
            }
            RecordingSink sink;
            auto backend = b.make();
            std::string error;
            bool started = backend->start(sink, error);
            backend->watch(getpid());
            bool watched = backend->isWatched(getpid());
            backend->stop();
            _exit(started                                      ? 3
                  : error.find(b.refusal) == std::string::npos ? 4
                  : watched != b.watchesBeforeStart            ? 5
                                                               : 0);
        }
        ASSERT_GT(child, 0);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status)) << b.name;
        EXPECT_EQ(WEXITSTATUS(status), 0)
            << b.name
            << " 2: could not drop root, 3: started anyway, 4: no clear reason, 5: watch before start not as intended";
    }
}

// ---- what only one back-end does ------------------------------------------------------

class PortableLive : public LiveBackend {};
INSTANTIATE_TEST_SUITE_P(Portable, PortableLive, ::testing::Values(kPortable), backendName);

TEST_P(PortableLive, SaysItCannotSeeDnsAndNothingElseHere) {
    const uint32_t unsupported = backend_->unsupportedKinds();
    EXPECT_EQ(unsupported & (1u << static_cast<int>(EventKind::DnsQuery)), 1u << static_cast<int>(EventKind::DnsQuery));
    auto* portable = static_cast<wlc::portable::PortableBackend*>(backend_.get());
    EXPECT_NE(portable->limitations().find("DNS"), std::string::npos);
    if (unsupported & ~(1u << static_cast<int>(EventKind::DnsQuery))) {
        std::cout << "[   INFO   ] this host hides more than DNS: " << portable->limitations() << "\n";
    }
}

TEST_P(PortableLive, AdoptsWhatAWatchedProcessForkedBeforeTheStart) {
    Worker worker(config("early"));
    int32_t early = worker.run(Op::ForkGrandchild);
    ASSERT_GT(early, 0);
    RecordingSink sink;
    auto backend = wlc::makePortableBackend();
    backend->watch(worker.pid());
    std::string error;
    ASSERT_TRUE(backend->start(sink, error)) << error;
    auto seen = [&](EventKind kind, pid_t pid) {
        return sink
            .waitFor(0,
                     [&](const HostEvent& e) {
                         return e.kind == kind && e.pid == pid && (kind != EventKind::Fork || e.ppid == worker.pid());
                     })
            .has_value();
    };
    EXPECT_TRUE(seen(EventKind::Fork, early));
    EXPECT_TRUE(backend->isWatched(early));

    ASSERT_TRUE(worker.releaseGrandchild());
    EXPECT_TRUE(seen(EventKind::Exit, early));
    const pid_t parent = worker.pid();
    worker.finish();
    EXPECT_TRUE(seen(EventKind::Exit, parent));
    EXPECT_FALSE(backend->isWatched(early));
    backend->stop();
    EXPECT_EQ(backend->counters().lostInBackend, 0u);
}

class EbpfLive : public LiveBackend {};
INSTANTIATE_TEST_SUITE_P(Ebpf, EbpfLive, ::testing::Values(kEbpf), backendName);

TEST_P(EbpfLive, ABurstArrivesOrIsCountedAsLost) {
    Worker worker(config("burst"));
    ASSERT_EQ(worker.run(Op::Create), 0);
    backend_->watch(worker.pid());
    auto lostBefore = backend_->counters().lostInKernelByKind[int(EventKind::FileModification)];
    size_t from = sink_.mark();
    auto t0 = std::chrono::steady_clock::now();
    int32_t n = worker.run(Op::Burst, 60000);
    ASSERT_EQ(n, worker.config().burst);
    auto match = [&](const HostEvent& e) { return e.kind == EventKind::FileModification && e.pid == worker.pid(); };
    auto lost = [&] { return backend_->counters().lostInKernelByKind[int(EventKind::FileModification)] - lostBefore; };
    size_t got = sink_.waitCount(from, size_t(n) - lost(), match, 10s);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_EQ(got + lost(), size_t(n));
    std::cout << "[   INFO   ] " << got << " events in " << seconds << " s (" << int(got / seconds) << " events/s), "
              << lost() << " lost in the kernel\n";
    backend_->unwatch(worker.pid());
}

// A sink that holds the delivery thread until opened.
class GatedSink : public wlc::EventSink {
public:
    void onEvent(HostEvent&& event) override {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            opened_.wait(lock, [&] { return open_; });
        }
        inner.onEvent(std::move(event));
    }
    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        opened_.notify_all();
    }
    RecordingSink inner;

private:
    std::mutex mutex_;
    std::condition_variable opened_;
    bool open_ = false;
};

TEST_P(EbpfLive, WhatTheRingBufferCannotHoldIsCountedPerKind) {
    // A second back-end of its own, whose reader is stuck: the ring buffer
    // (8 MiB, some 15000 file records) fills up.
    auto backend = wlc::makeEbpfBackend();
    GatedSink sink;
    std::string error;
    ASSERT_TRUE(backend->start(sink, error)) << error;
    WorkloadConfig c = config("overflow");
    c.burst = 40000;
    Worker worker(c);
    ASSERT_EQ(worker.run(Op::Create), 0);
    backend->watch(worker.pid());
    ASSERT_EQ(worker.run(Op::Burst, 60000), c.burst);

    uint64_t lost = backend->counters().lostInKernelByKind[int(EventKind::FileModification)];
    EXPECT_GT(lost, 0u);
    EXPECT_EQ(backend->counters().lostInKernel, lost);
    sink.open();
    size_t got = sink.inner.waitCount(
        0, size_t(c.burst) - lost,
        [&](const HostEvent& e) { return e.kind == EventKind::FileModification && e.pid == worker.pid(); }, 10s);
    EXPECT_EQ(got + lost, size_t(c.burst));
    std::cout << "[   INFO   ] stuck reader: " << got << " delivered, " << lost << " counted as lost\n";
    backend->stop();
    EXPECT_EQ(backend->counters().lostInKernel, lost) << "the counts outlive stop()";
}

}  // namespace
