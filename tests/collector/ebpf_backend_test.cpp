// The eBPF back-end against the real kernel: needs root and BPF support,
// skips otherwise. Worker processes forked from the test do what a watched
// process does, one command at a time over a pipe; the test waits for the
// events with a deadline.
#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "capture_backend.h"
#include "dns_query.h"
#include "recording_sink.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using wlc::EventKind;
using wlc::HostEvent;

// ---- worker processes ---------------------------------------------------------------

enum class Op : uint8_t {
    ForkExecTrue,    // fork, the child execs /bin/true; ack: the child's pid
    Create,          // open(a, O_CREAT|O_EXCL|O_WRONLY)
    CreateAt,        // openat(dir, rel, O_CREAT|O_WRONLY), then unlinkat; ack: the dir fd
    Modify,          // open(a, O_WRONLY)
    ColdPath,        // creates the file named in coldSrc, from a page not yet touched
    DevNull,         // open("/dev/null", O_WRONLY): not reported (no file changes)
    ReadOnly,        // open(c, O_RDONLY): not reported
    Truncate,        // truncate(a, 0)
    Rename,          // rename(a, b)
    TouchTimes,      // utimensat(AT_FDCWD, b, NULL, 0)
    Unlink,          // unlink(b)
    RemoveDir,       // mkdir(d), unlinkat(AT_FDCWD, d, AT_REMOVEDIR): not reported
    ConnectV4,       // TCP to 127.0.0.1:v4Port; ack: the local port
    ConnectV6,       // TCP to [::1]:v6Port; ack: the local port
    Listen,          // TCP listen on 127.0.0.1, any port; ack: the port
    DnsSendto,       // UDP sendto 127.0.0.1:53
    DnsSendtoV6,     // UDP sendto [::1]:53
    DnsConnected,    // UDP connect 127.0.0.1:53, send()
    DnsSendmsg,      // UDP connect 127.0.0.1:53, sendmsg()
    DnsSendmmsg,     // UDP connect 127.0.0.1:53, sendmmsg() of two messages
    ForkGrandchild,  // fork a child that waits on gc pipe, then creates gc and exits; ack: its pid
    Burst,           // burst times open(a, O_WRONLY) + close
};

struct DnsMessage {
    uint8_t bytes[128];
    size_t size;
};

// A query for `name` (recursion desired, one question, A IN).
DnsMessage makeQuery(const char* name, uint16_t id) {
    DnsMessage m{};
    uint8_t head[12] = {uint8_t(id >> 8), uint8_t(id), 0x01, 0x00, 0x00, 0x01, 0, 0, 0, 0, 0, 0};
    memcpy(m.bytes, head, sizeof head);
    size_t at = sizeof head;
    for (const char* label = name; *label;) {
        size_t len = strcspn(label, ".");
        m.bytes[at++] = uint8_t(len);
        memcpy(m.bytes + at, label, len);
        at += len;
        label += len + (label[len] == '.' ? 1 : 0);
    }
    const uint8_t tail[5] = {0, 0, 1, 0, 1};
    memcpy(m.bytes + at, tail, sizeof tail);
    m.size = at + sizeof tail;
    return m;
}

enum Query { kQSendto, kQSendtoV6, kQConnected, kQSendmsg, kQSendmmsg, kQCount };
const char* const kQueryNames[kQCount] = {"sendto.wlc.test", "sendto6.wlc.test", "connected.wlc.test",
                                          "sendmsg.wlc.test", "mmsg.wlc.test"};

// Everything a worker needs, ready before it is forked: the worker runs in
// a child of a multi-threaded process and makes system calls only (no
// allocation, no locks).
struct WorkerConfig {
    char a[256], b[256], c[256], d[256], gc[256];
    char cold[256], coldSrc[256];  // coldSrc holds the name cold
    char dir[256];
    char rel[64];
    int gcRead = -1;  // the grandchild waits on this pipe
    uint16_t v4Port = 0, v6Port = 0;
    int burst = 0;
    DnsMessage queries[kQCount];
};

int32_t failed() { return -errno; }

int32_t localPort(int fd) {
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len);
    return ntohs(ss.ss_family == AF_INET ? reinterpret_cast<sockaddr_in&>(ss).sin_port
                                         : reinterpret_cast<sockaddr_in6&>(ss).sin6_port);
}

sockaddr_in v4(uint16_t port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sa;
}

sockaddr_in6 v6(uint16_t port) {
    sockaddr_in6 sa{};
    sa.sin6_family = AF_INET6;
    sa.sin6_port = htons(port);
    sa.sin6_addr = in6addr_loopback;
    return sa;
}

template <typename Addr>
int32_t tcpConnect(int family, const Addr& to) {
    int fd = socket(family, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) return failed();
    int32_t port = localPort(fd);
    close(fd);
    return port;
}

// A UDP socket connected to 127.0.0.1:53, as the C library's resolver has it.
int udpConnected() {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to = v4(53);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int32_t runOp(Op op, const WorkerConfig& c) {
    switch (op) {
        case Op::ForkExecTrue: {
            pid_t child = fork();
            if (child == 0) {
                char* const argv[] = {const_cast<char*>("/bin/true"), const_cast<char*>("wlc-marker"), nullptr};
                char* const envp[] = {nullptr};
                execve("/bin/true", argv, envp);
                _exit(127);
            }
            if (child < 0) return failed();
            waitpid(child, nullptr, 0);  // SIGCHLD is ignored: waits, then ECHILD
            return child;
        }
        case Op::Create: {
            int fd = open(c.a, O_CREAT | O_EXCL | O_WRONLY, 0644);
            return fd < 0 ? failed() : close(fd);
        }
        case Op::CreateAt: {
            int dirFd = open(c.dir, O_RDONLY | O_DIRECTORY);
            int fd = openat(dirFd, c.rel, O_CREAT | O_WRONLY, 0644);
            if (fd < 0) return failed();
            close(fd);
            unlinkat(dirFd, c.rel, 0);
            close(dirFd);
            return dirFd;
        }
        case Op::Modify: {
            int fd = open(c.a, O_WRONLY);
            return fd < 0 ? failed() : close(fd);
        }
        case Op::ColdPath: {
            // The name is read from a mapped page no one has touched yet: the
            // back-end cannot read it at syscall entry, only at exit.
            int src = open(c.coldSrc, O_RDONLY);
            void* page = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, src, 0);
            close(src);
            if (page == MAP_FAILED) return failed();
            int fd = open(static_cast<const char*>(page), O_CREAT | O_WRONLY, 0644);
            int32_t r = fd < 0 ? failed() : close(fd);
            munmap(page, 4096);
            return r;
        }
        case Op::DevNull: {
            int fd = open("/dev/null", O_WRONLY);
            return fd < 0 ? failed() : close(fd);
        }
        case Op::ReadOnly: {
            int fd = open(c.c, O_RDONLY);
            return fd < 0 ? failed() : close(fd);
        }
        case Op::Truncate: return truncate(c.a, 0) == 0 ? 0 : failed();
        case Op::Rename: return rename(c.a, c.b) == 0 ? 0 : failed();
        case Op::TouchTimes: return utimensat(AT_FDCWD, c.b, nullptr, 0) == 0 ? 0 : failed();
        case Op::Unlink: return unlink(c.b) == 0 ? 0 : failed();
        case Op::RemoveDir: return mkdir(c.d, 0755) == 0 && unlinkat(AT_FDCWD, c.d, AT_REMOVEDIR) == 0 ? 0 : failed();
        case Op::ConnectV4: return tcpConnect(AF_INET, v4(c.v4Port));
        case Op::ConnectV6: return tcpConnect(AF_INET6, v6(c.v6Port));
        case Op::Listen: {
            int fd = socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in at = v4(0);
            if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at) != 0 || listen(fd, 4) != 0)
                return failed();
            int32_t port = localPort(fd);
            close(fd);
            return port;
        }
        case Op::DnsSendto:
        case Op::DnsSendtoV6: {
            bool six = op == Op::DnsSendtoV6;
            const DnsMessage& q = c.queries[six ? kQSendtoV6 : kQSendto];
            int fd = socket(six ? AF_INET6 : AF_INET, SOCK_DGRAM, 0);
            sockaddr_in to4 = v4(53);
            sockaddr_in6 to6 = v6(53);
            ssize_t n = six ? sendto(fd, q.bytes, q.size, 0, reinterpret_cast<sockaddr*>(&to6), sizeof to6)
                            : sendto(fd, q.bytes, q.size, 0, reinterpret_cast<sockaddr*>(&to4), sizeof to4);
            int32_t r = n < 0 ? failed() : 0;
            close(fd);
            return r;
        }
        case Op::DnsConnected:
        case Op::DnsSendmsg:
        case Op::DnsSendmmsg: {
            int fd = udpConnected();
            if (fd < 0) return failed();
            ssize_t n;
            if (op == Op::DnsConnected) {
                n = send(fd, c.queries[kQConnected].bytes, c.queries[kQConnected].size, 0);
            } else if (op == Op::DnsSendmsg) {
                iovec iov{const_cast<uint8_t*>(c.queries[kQSendmsg].bytes), c.queries[kQSendmsg].size};
                msghdr msg{};
                msg.msg_iov = &iov;
                msg.msg_iovlen = 1;
                n = sendmsg(fd, &msg, 0);
            } else {
                iovec iov[2] = {{const_cast<uint8_t*>(c.queries[kQSendmmsg].bytes), c.queries[kQSendmmsg].size},
                                {const_cast<uint8_t*>(c.queries[kQSendto].bytes), c.queries[kQSendto].size}};
                mmsghdr msgs[2]{};
                for (int i = 0; i < 2; ++i) {
                    msgs[i].msg_hdr.msg_iov = &iov[i];
                    msgs[i].msg_hdr.msg_iovlen = 1;
                }
                n = sendmmsg(fd, msgs, 2, 0);
            }
            int32_t r = n < 0 ? failed() : 0;
            close(fd);
            return r;
        }
        case Op::ForkGrandchild: {
            pid_t child = fork();
            if (child == 0) {
                char go;
                if (read(c.gcRead, &go, 1) >= 0) {
                    int fd = open(c.gc, O_CREAT | O_WRONLY, 0644);
                    if (fd >= 0) close(fd);
                }
                _exit(0);
            }
            return child < 0 ? failed() : child;
        }
        case Op::Burst:
            for (int i = 0; i < c.burst; ++i) {
                int fd = open(c.a, O_WRONLY);
                if (fd < 0) return failed();
                close(fd);
            }
            return c.burst;
    }
    return -EINVAL;
}

// A forked process that runs Ops sent over a pipe and answers each with an
// int32 (>= 0, or -errno). It ends when the pipe closes.
class Worker {
public:
    explicit Worker(WorkerConfig config) : config_(config) {
        int cmd[2], ack[2], gc[2];
        if (pipe(cmd) != 0 || pipe(ack) != 0 || pipe(gc) != 0) return;
        config_.gcRead = gc[0];
        pid_ = fork();
        if (pid_ == 0) {
            close(cmd[1]);
            close(ack[0]);
            close(gc[1]);
            signal(SIGCHLD, SIG_IGN);  // children are reaped by the kernel
            uint8_t op;
            while (read(cmd[0], &op, 1) == 1) {
                int32_t result = runOp(static_cast<Op>(op), config_);
                if (write(ack[1], &result, sizeof result) != sizeof result) break;
            }
            _exit(0);
        }
        close(cmd[0]);
        close(ack[1]);
        close(gc[0]);
        cmd_ = cmd[1];
        ack_ = ack[0];
        gcWrite_ = gc[1];
    }
    ~Worker() {
        close(cmd_);
        close(ack_);
        close(gcWrite_);
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    pid_t pid() const { return pid_; }
    const WorkerConfig& config() const { return config_; }

    // Runs op in the worker; its result, or INT32_MIN when it did not answer.
    int32_t run(Op op, int timeoutMs = 10000) {
        uint8_t byte = static_cast<uint8_t>(op);
        if (write(cmd_, &byte, 1) != 1) return INT32_MIN;
        pollfd p{ack_, POLLIN, 0};
        int32_t result;
        if (poll(&p, 1, timeoutMs) != 1 || read(ack_, &result, sizeof result) != sizeof result) return INT32_MIN;
        return result;
    }
    // Lets the grandchild (ForkGrandchild) go on: it creates gc and exits.
    void releaseGrandchild() {
        char go = 1;
        EXPECT_EQ(write(gcWrite_, &go, 1), 1);
    }

private:
    WorkerConfig config_;
    pid_t pid_ = -1;
    int cmd_ = -1, ack_ = -1, gcWrite_ = -1;
};

bool processGone(pid_t pid, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (kill(pid, 0) == 0 || errno != ESRCH) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

std::string dnsName(const HostEvent& e) {
    return wlc::parseDnsQueryName(e.payload.data(), e.payload.size()).value_or("<unparsable>");
}

std::array<uint8_t, 16> addr(int family, const char* text) {
    std::array<uint8_t, 16> out{};
    inet_pton(family, text, out.data());
    return out;
}

// ---- the suite: one back-end for all ------------------------------------------------

class EbpfBackendTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (geteuid() != 0) {
            skipReason_ = "needs root to load BPF programs";
            return;
        }
        backend_ = wlc::makeEbpfBackend().release();
        sink_ = new RecordingSink;
        std::string error;
        if (!backend_->start(*sink_, error)) {
            skipReason_ = "the eBPF back-end cannot run here: " + error;
            return;
        }
        char dir[] = "/tmp/wlc-ebpf-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        listen4_ = listener(AF_INET, &port4_);
        listen6_ = listener(AF_INET6, &port6_);
    }
    static void TearDownTestSuite() {
        if (backend_) {
            backend_->stop();
            backend_->stop();  // twice is fine
        }
        delete backend_;
        delete sink_;
        backend_ = nullptr;
        sink_ = nullptr;
        if (listen4_ >= 0) close(listen4_);
        if (listen6_ >= 0) close(listen6_);
        if (!dir_.empty()) std::filesystem::remove_all(dir_);
    }
    void SetUp() override {
        if (!skipReason_.empty()) GTEST_SKIP() << skipReason_;
    }

    static int listener(int family, uint16_t* port) {
        int fd = socket(family, SOCK_STREAM, 0);
        sockaddr_in a4 = v4(0);
        sockaddr_in6 a6 = v6(0);
        bool ok = fd >= 0 &&
                  (family == AF_INET ? bind(fd, reinterpret_cast<sockaddr*>(&a4), sizeof a4)
                                     : bind(fd, reinterpret_cast<sockaddr*>(&a6), sizeof a6)) == 0 &&
                  listen(fd, 64) == 0;
        if (!ok) {
            if (fd >= 0) close(fd);
            return -1;
        }
        *port = localPort(fd);
        return fd;
    }

    // A config whose files are all under the suite's directory, named for `tag`.
    static WorkerConfig config(const std::string& tag) {
        WorkerConfig c{};
        auto put = [&](char* out, const std::string& text) { snprintf(out, 256, "%s", text.c_str()); };
        put(c.dir, dir_);
        put(c.a, dir_ + "/" + tag + "-a");
        put(c.b, dir_ + "/" + tag + "-b");
        put(c.c, dir_ + "/" + tag + "-readonly");
        put(c.d, dir_ + "/" + tag + "-dir");
        put(c.gc, dir_ + "/" + tag + "-grandchild");
        put(c.cold, dir_ + "/" + tag + "-cold");
        put(c.coldSrc, dir_ + "/" + tag + "-cold-name");
        snprintf(c.rel, sizeof c.rel, "%s-relative", tag.c_str());
        c.v4Port = port4_;
        c.v6Port = port6_;
        c.burst = 20000;
        for (int q = 0; q < kQCount; ++q) c.queries[q] = makeQuery(kQueryNames[q], uint16_t(0x4200 + q));
        int fd = open(c.c, O_CREAT | O_WRONLY, 0644);  // exists before the worker reads it
        if (fd >= 0) close(fd);
        fd = open(c.coldSrc, O_CREAT | O_WRONLY | O_TRUNC, 0644);
        if (fd >= 0) {
            EXPECT_EQ(write(fd, c.cold, strlen(c.cold) + 1), ssize_t(strlen(c.cold) + 1));
            close(fd);
        }
        return c;
    }

    static inline wlc::CaptureBackend* backend_ = nullptr;
    static inline RecordingSink* sink_ = nullptr;
    static inline std::string skipReason_;
    static inline std::string dir_;
    static inline int listen4_ = -1, listen6_ = -1;
    static inline uint16_t port4_ = 0, port6_ = 0;
};

// What one Op of a watched worker must produce: events of these kinds from
// the worker (or, for pidFromAck, from the pid it answered), each passing
// its check.
struct Expect {
    EventKind kind;
    std::function<bool(const HostEvent&, const WorkerConfig&, int32_t ack)> check;
    bool pidFromAck = false;
};
struct Case {
    const char* name;
    Op op;
    std::vector<Expect> expect;
};

bool isTcp4(const HostEvent& e) { return e.family == AF_INET && e.protocol == IPPROTO_TCP; }
bool dnsTo(const HostEvent& e, int family, const char* dst, const char* name) {
    return e.family == family && e.dstPort == 53 && e.dstAddr == addr(family, dst) && e.protocol == IPPROTO_UDP &&
           e.srcPort != 0 && dnsName(e) == name;
}

const std::vector<Case>& cases() {
    using C = const WorkerConfig&;
    static const std::vector<Case> table = {
        {"fork and exec",
         Op::ForkExecTrue,
         {{EventKind::Fork, [](const HostEvent&, C, int32_t) { return true; }, true},
          {EventKind::ProcessCreation,
           [](const HostEvent& e, C, int32_t) { return e.path == "/bin/true" && e.cmdline == "/bin/true wlc-marker"; },
           true},
          {EventKind::Exit, [](const HostEvent&, C, int32_t) { return true; }, true}}},
        {"create",
         Op::Create,
         {{EventKind::FileCreation,
           [](const HostEvent& e, C c, int32_t) {
               auto now = std::chrono::system_clock::now().time_since_epoch();
               int64_t skew = int64_t(e.timeNs) - std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
               return e.path == c.a && e.dirFd == AT_FDCWD && e.uid == getuid() && skew < 0 && skew > -10'000'000'000;
           }}}},
        {"create relative to a directory fd",
         Op::CreateAt,
         {{EventKind::FileCreation,
           [](const HostEvent& e, C c, int32_t dirFd) { return e.path == c.rel && e.dirFd == dirFd; }}}},
        {"open existing to write",
         Op::Modify,
         {{EventKind::FileModification, [](const HostEvent& e, C c, int32_t) { return e.path == c.a; }}}},
        {"create, the name on a page not yet touched",
         Op::ColdPath,
         {{EventKind::FileCreation, [](const HostEvent& e, C c, int32_t) { return e.path == c.cold; }}}},
        {"read only: nothing", Op::ReadOnly, {}},
        {"write to /dev/null: nothing", Op::DevNull, {}},
        {"truncate",
         Op::Truncate,
         {{EventKind::FileModification, [](const HostEvent& e, C c, int32_t) { return e.path == c.a; }}}},
        {"rename",
         Op::Rename,
         {{EventKind::FileRenaming, [](const HostEvent& e, C c, int32_t) { return e.path == c.a && e.path2 == c.b; }}}},
        {"utimensat",
         Op::TouchTimes,
         {{EventKind::FileTimeChange, [](const HostEvent& e, C c, int32_t) { return e.path == c.b; }}}},
        {"unlink",
         Op::Unlink,
         {{EventKind::FileDeletion, [](const HostEvent& e, C c, int32_t) { return e.path == c.b; }}}},
        {"rmdir: nothing", Op::RemoveDir, {}},
        {"connect IPv4",
         Op::ConnectV4,
         {{EventKind::Connection,
           [](const HostEvent& e, C c, int32_t port) {
               return isTcp4(e) && e.dstPort == c.v4Port && e.srcPort == port && port != 0 &&
                      e.dstAddr == addr(AF_INET, "127.0.0.1") && e.srcAddr == addr(AF_INET, "127.0.0.1");
           }}}},
        {"connect IPv6",
         Op::ConnectV6,
         {{EventKind::Connection,
           [](const HostEvent& e, C c, int32_t port) {
               return e.family == AF_INET6 && e.protocol == IPPROTO_TCP && e.dstPort == c.v6Port && e.srcPort == port &&
                      port != 0 && e.dstAddr == addr(AF_INET6, "::1") && e.srcAddr == addr(AF_INET6, "::1");
           }}}},
        {"listen",
         Op::Listen,
         {{EventKind::Listening,
           [](const HostEvent& e, C, int32_t port) {
               return isTcp4(e) && e.srcPort == port && e.srcAddr == addr(AF_INET, "127.0.0.1") && e.dstPort == 0 &&
                      e.dstAddr == std::array<uint8_t, 16>{};
           }}}},
        {"DNS by sendto",
         Op::DnsSendto,
         {{EventKind::DnsQuery,
           [](const HostEvent& e, C, int32_t) { return dnsTo(e, AF_INET, "127.0.0.1", "sendto.wlc.test"); }}}},
        {"DNS by sendto over IPv6",
         Op::DnsSendtoV6,
         {{EventKind::DnsQuery,
           [](const HostEvent& e, C, int32_t) { return dnsTo(e, AF_INET6, "::1", "sendto6.wlc.test"); }}}},
        {"DNS on a connected socket",
         Op::DnsConnected,
         {{EventKind::Connection,
           [](const HostEvent& e, C, int32_t) {
               return e.family == AF_INET && e.protocol == IPPROTO_UDP && e.dstPort == 53 && e.srcPort != 0;
           }},
          {EventKind::DnsQuery,
           [](const HostEvent& e, C, int32_t) { return dnsTo(e, AF_INET, "127.0.0.1", "connected.wlc.test"); }}}},
        {"DNS by sendmsg",
         Op::DnsSendmsg,
         {{EventKind::DnsQuery,
           [](const HostEvent& e, C, int32_t) { return dnsTo(e, AF_INET, "127.0.0.1", "sendmsg.wlc.test"); }}}},
        {"DNS by sendmmsg: the first message",
         Op::DnsSendmmsg,
         {{EventKind::DnsQuery,
           [](const HostEvent& e, C, int32_t) { return dnsTo(e, AF_INET, "127.0.0.1", "mmsg.wlc.test"); }}}},
    };
    return table;
}

TEST_F(EbpfBackendTest, ReportsWhatAWatchedProcessDoesAndNothingOfOthers) {
    // The unwatched sibling goes first: had it been reported, its events
    // would come before the watched worker's last one.
    Worker sibling(config("sibling"));
    std::set<int32_t> siblingPids = {sibling.pid()};
    size_t start = sink_->mark();
    for (const Case& c : cases()) {
        if (c.op == Op::ConnectV6 && port6_ == 0) continue;
        int32_t ack = sibling.run(c.op);
        EXPECT_GE(ack, 0) << "sibling: " << c.name << ": " << strerror(-ack);
        if (c.op == Op::ForkExecTrue) siblingPids.insert(ack);
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
        size_t from = sink_->mark();
        int32_t ack = worker.run(c.op);
        ASSERT_GE(ack, 0) << strerror(-ack);
        for (const Expect& x : c.expect) {
            int32_t pid = x.pidFromAck ? ack : worker.pid();
            auto got = sink_->waitFor(from, [&](const HostEvent& e) {
                // The worker's child names the worker as its parent.
                bool parent = !x.pidFromAck || x.kind == EventKind::Exit || e.ppid == worker.pid();
                return e.kind == x.kind && e.pid == pid && parent && x.check(e, worker.config(), ack);
            });
            EXPECT_TRUE(got) << "no matching " << wlc::eventKindName(x.kind) << " event from " << pid;
        }
    }
    // Nothing from the sibling and its child, nothing for a read or a directory.
    const WorkerConfig& wc = worker.config();
    EXPECT_EQ(sink_->count(start, [&](const HostEvent& e) { return siblingPids.count(e.pid) != 0; }), 0u);
    EXPECT_EQ(sink_->count(
                  start, [&](const HostEvent& e) { return e.path == wc.c || e.path == wc.d || e.path == "/dev/null"; }),
              0u);
    EXPECT_EQ(backend_->counters().lostInKernel, 0u);
    EXPECT_EQ(backend_->counters().lostInBackend, 0u);
    backend_->unwatch(worker.pid());
}

TEST_F(EbpfBackendTest, ChildrenOfAWatchedProcessAreWatchedUntilTheyExit) {
    Worker worker(config("parent"));
    backend_->watch(worker.pid());
    size_t from = sink_->mark();
    int32_t gc = worker.run(Op::ForkGrandchild);
    ASSERT_GT(gc, 0);
    auto fork = sink_->waitFor(from, [&](const HostEvent& e) { return e.kind == EventKind::Fork && e.pid == gc; });
    ASSERT_TRUE(fork);
    EXPECT_EQ(fork->ppid, worker.pid());
    EXPECT_TRUE(backend_->isWatched(gc));

    worker.releaseGrandchild();
    EXPECT_TRUE(sink_->waitFor(from, [&](const HostEvent& e) {
        return e.kind == EventKind::FileCreation && e.pid == gc && e.path == worker.config().gc;
    }));
    EXPECT_TRUE(sink_->waitFor(from, [&](const HostEvent& e) { return e.kind == EventKind::Exit && e.pid == gc; }));
    EXPECT_FALSE(backend_->isWatched(gc));
    EXPECT_TRUE(backend_->isWatched(worker.pid()));
    backend_->unwatch(worker.pid());
}

TEST_F(EbpfBackendTest, UnwatchStopsTheRootAndItsChildren) {
    Worker worker(config("unwatched-root"));
    Worker fence(config("fence"));
    backend_->watch(worker.pid());
    backend_->watch(fence.pid());
    size_t from = sink_->mark();
    int32_t gc = worker.run(Op::ForkGrandchild);
    ASSERT_GT(gc, 0);
    ASSERT_TRUE(sink_->waitFor(from, [&](const HostEvent& e) { return e.kind == EventKind::Fork && e.pid == gc; }));

    backend_->unwatch(worker.pid());
    EXPECT_FALSE(backend_->isWatched(worker.pid()));
    EXPECT_FALSE(backend_->isWatched(gc));
    EXPECT_TRUE(backend_->isWatched(fence.pid()));
    size_t after = sink_->mark();
    ASSERT_EQ(worker.run(Op::Create), 0);
    worker.releaseGrandchild();
    ASSERT_TRUE(processGone(gc, 5s));
    // Once the fence's event is in, the others would have been too.
    ASSERT_EQ(fence.run(Op::Create), 0);
    ASSERT_TRUE(sink_->waitFor(after, [&](const HostEvent& e) { return e.pid == fence.pid(); }));
    EXPECT_EQ(sink_->count(after, [&](const HostEvent& e) { return e.pid == worker.pid() || e.pid == gc; }), 0u);
    backend_->unwatch(fence.pid());
}

TEST_F(EbpfBackendTest, ABurstArrivesOrIsCountedAsLost) {
    Worker worker(config("burst"));
    ASSERT_EQ(worker.run(Op::Create), 0);
    backend_->watch(worker.pid());
    auto lostBefore = backend_->counters().lostInKernelByKind[int(EventKind::FileModification)];
    size_t from = sink_->mark();
    auto t0 = std::chrono::steady_clock::now();
    int32_t n = worker.run(Op::Burst, 60000);
    ASSERT_EQ(n, worker.config().burst);
    auto match = [&](const HostEvent& e) { return e.kind == EventKind::FileModification && e.pid == worker.pid(); };
    auto lost = [&] { return backend_->counters().lostInKernelByKind[int(EventKind::FileModification)] - lostBefore; };
    size_t got = sink_->waitCount(from, size_t(n) - lost(), match, 10s);
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

TEST_F(EbpfBackendTest, WhatTheRingBufferCannotHoldIsCountedPerKind) {
    // A second back-end of its own, whose reader is stuck: the ring buffer
    // (8 MiB, some 15000 file records) fills up.
    auto backend = wlc::makeEbpfBackend();
    GatedSink sink;
    std::string error;
    ASSERT_TRUE(backend->start(sink, error)) << error;
    WorkerConfig c = config("overflow");
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

TEST(EbpfBackendNonRoot, StartFailsCleanly) {
    auto check = [] {
        auto backend = wlc::makeEbpfBackend();
        RecordingSink sink;
        std::string error;
        EXPECT_STREQ(backend->name(), "ebpf");
        EXPECT_FALSE(backend->start(sink, error));
        EXPECT_NE(error.find("BPF program failed to"), std::string::npos) << error;
        backend->watch(getpid());
        EXPECT_FALSE(backend->isWatched(getpid()));
        backend->stop();
    };
    if (getenv("WLC_EBPF_TEST_AS_NOBODY")) {  // the re-run below, as nobody
        ASSERT_EQ(setgroups(0, nullptr), 0);
        ASSERT_EQ(setresgid(65534, 65534, 65534), 0);
        ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
        check();
        return;
    }
    if (geteuid() != 0) {
        check();
        return;
    }
    // Root: run this test again in a fresh process that drops to nobody
    // first (dropping privileges here would spoil the other tests).
    std::string filter = "--gtest_filter=EbpfBackendNonRoot.StartFailsCleanly";
    char* argv[] = {const_cast<char*>("collector_tests"), filter.data(), nullptr};
    std::vector<char*> env;
    for (char** e = environ; *e; ++e) env.push_back(*e);
    std::string flag = "WLC_EBPF_TEST_AS_NOBODY=1";
    env.push_back(flag.data());
    env.push_back(nullptr);
    pid_t child = -1;
    ASSERT_EQ(posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, argv, env.data()), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the run as nobody failed (output above)";
}

}  // namespace
