#include "workload.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <thread>

const char* const kQueryNames[kQCount] = {"sendto.wlc.test", "sendto6.wlc.test", "connected.wlc.test",
                                          "sendmsg.wlc.test", "mmsg.wlc.test"};

namespace {

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

// Closes a socket after the configured hold; r is passed through.
int32_t closeHeld(int fd, int32_t r, const WorkloadConfig& c) {
    timespec hold{c.holdMs / 1000, (c.holdMs % 1000) * 1000000L};
    if (c.holdMs > 0) nanosleep(&hold, nullptr);
    close(fd);
    return r;
}

template <typename Addr>
int32_t tcpConnect(int family, const Addr& to, const WorkloadConfig& c) {
    int fd = socket(family, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) return failed();
    return closeHeld(fd, localPort(fd), c);
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

int32_t writeTo(const char* path, int flags) {
    int fd = open(path, flags, 0644);
    if (fd < 0) return failed();
    int32_t r = write(fd, "x", 1) == 1 ? 0 : failed();
    close(fd);
    return r;
}

int32_t runOp(Op op, const WorkloadConfig& c) {
    switch (op) {
        case Op::ForkExec: {
            pid_t child = fork();
            if (child == 0) {
                // Lives long enough for /proc to be read after the exec.
                char* const argv[] = {const_cast<char*>("/bin/sleep"), const_cast<char*>("0.3"), nullptr};
                char* const envp[] = {nullptr};
                execve("/bin/sleep", argv, envp);
                _exit(127);
            }
            if (child < 0) return failed();
            waitpid(child, nullptr, 0);  // SIGCHLD is ignored: waits, then ECHILD
            return child;
        }
        case Op::Create: return writeTo(c.a, O_CREAT | O_EXCL | O_WRONLY);
        case Op::CreateAt: {
            int dirFd = open(c.dir, O_RDONLY | O_DIRECTORY);
            int fd = openat(dirFd, c.rel, O_CREAT | O_WRONLY, 0644);
            if (fd < 0) return failed();
            close(fd);
            unlinkat(dirFd, c.rel, 0);
            close(dirFd);
            return dirFd;
        }
        case Op::Modify: return writeTo(c.e, O_WRONLY | O_APPEND);
        case Op::ColdPath: {
            // The name is read from a mapped page no one has touched yet: a
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
        case Op::Truncate: return truncate(c.f, 0) == 0 ? 0 : failed();
        case Op::Rename: return rename(c.a, c.b) == 0 ? 0 : failed();
        case Op::TouchTimes: return utimensat(AT_FDCWD, c.b, nullptr, 0) == 0 ? 0 : failed();
        case Op::Unlink: return unlink(c.b) == 0 ? 0 : failed();
        case Op::RemoveDir: return mkdir(c.d, 0755) == 0 && unlinkat(AT_FDCWD, c.d, AT_REMOVEDIR) == 0 ? 0 : failed();
        case Op::ConnectV4: return tcpConnect(AF_INET, v4(c.v4Port), c);
        case Op::ConnectV6: return tcpConnect(AF_INET6, v6(c.v6Port), c);
        case Op::Listen: {
            int fd = socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in at = v4(0);
            if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at) != 0 || listen(fd, 4) != 0)
                return failed();
            return closeHeld(fd, localPort(fd), c);
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
            return closeHeld(fd, n < 0 ? failed() : 0, c);
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

}  // namespace

WorkloadConfig makeWorkloadConfig(const std::string& dir, const std::string& tag, uint16_t v4Port, uint16_t v6Port) {
    WorkloadConfig c{};
    auto put = [&](char* out, const std::string& name) {
        snprintf(out, 256, "%s/%s-%s", dir.c_str(), tag.c_str(), name.c_str());
    };
    snprintf(c.dir, sizeof c.dir, "%s", dir.c_str());
    put(c.a, "a");
    put(c.b, "b");
    put(c.c, "readonly");
    put(c.d, "dir");
    put(c.e, "written");
    put(c.f, "truncated");
    put(c.gc, "grandchild");
    put(c.cold, "cold");
    put(c.coldSrc, "cold-name");
    snprintf(c.rel, sizeof c.rel, "%s-relative", tag.c_str());
    c.v4Port = v4Port;
    c.v6Port = v6Port;
    for (int q = 0; q < kQCount; ++q) c.queries[q] = makeQuery(kQueryNames[q], uint16_t(0x4200 + q));
    for (const char* existing : {c.c, c.e, c.f}) {
        int fd = open(existing, O_CREAT | O_WRONLY, 0644);
        if (fd >= 0) close(fd);
    }
    int fd = open(c.coldSrc, O_CREAT | O_WRONLY | O_TRUNC, 0644);
    if (fd >= 0) {
        if (write(fd, c.cold, strlen(c.cold) + 1) != ssize_t(strlen(c.cold) + 1)) c.coldSrc[0] = 0;
        close(fd);
    }
    return c;
}

Worker::Worker(WorkloadConfig config) : config_(config) {
    int cmd[2], ack[2], gc[2];
    if (pipe2(cmd, O_CLOEXEC) != 0 || pipe2(ack, O_CLOEXEC) != 0 || pipe2(gc, O_CLOEXEC) != 0) return;
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

Worker::~Worker() {
    close(ack_);
    close(gcWrite_);
    if (pid_ > 0) kill(pid_, SIGKILL);
    finish();
}

void Worker::finish() {
    close(cmd_);
    cmd_ = -1;
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

int32_t Worker::run(Op op, int timeoutMs) {
    uint8_t byte = static_cast<uint8_t>(op);
    if (write(cmd_, &byte, 1) != 1) return INT32_MIN;
    pollfd p{ack_, POLLIN, 0};
    int32_t result;
    if (poll(&p, 1, timeoutMs) != 1 || read(ack_, &result, sizeof result) != sizeof result) return INT32_MIN;
    return result;
}

bool Worker::releaseGrandchild() { return write(gcWrite_, "g", 1) == 1; }

int loopbackListener(int family, uint16_t* port) {
    int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
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

bool processGone(pid_t pid, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (kill(pid, 0) == 0 || errno != ESRCH) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::array<uint8_t, 16> addr(int family, const char* text) {
    std::array<uint8_t, 16> out{};
    inet_pton(family, text, out.data());
    return out;
}
