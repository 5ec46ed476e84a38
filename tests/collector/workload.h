// A forked process that does what a watched application does, one action at
// a time on the test's word, for the capture back-ends' live tests.
#ifndef WL_TEST_COLLECTOR_WORKLOAD_H
#define WL_TEST_COLLECTOR_WORKLOAD_H

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <string>

enum class Op : uint8_t {
    ForkExec,        // fork, the child execs /bin/sleep 0.3; ack: the child's pid
    Create,          // open(a, O_CREAT|O_EXCL|O_WRONLY) and write to it
    CreateAt,        // openat(dir, rel, O_CREAT|O_WRONLY), then unlinkat; ack: the dir fd
    Modify,          // open(e, O_WRONLY|O_APPEND) and write
    ColdPath,        // creates the file named in coldSrc, from a page not yet touched
    DevNull,         // open("/dev/null", O_WRONLY): not reported (no file changes)
    ReadOnly,        // open(c, O_RDONLY): not reported
    Truncate,        // truncate(f, 0)
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
    ForkGrandchild,  // fork a child that waits for releaseGrandchild(), creates gc and exits; ack: its pid
    Burst,           // burst times open(a, O_WRONLY) + close
};

struct DnsMessage {
    uint8_t bytes[128];
    size_t size;
};

enum Query { kQSendto, kQSendtoV6, kQConnected, kQSendmsg, kQSendmmsg, kQCount };
extern const char* const kQueryNames[kQCount];

// Everything a worker needs, ready before it is forked: the worker runs in a
// child of a multi-threaded process and makes system calls only (no
// allocation, no locks).
struct WorkloadConfig {
    char a[256], b[256], c[256], d[256], e[256], f[256], gc[256];
    char cold[256], coldSrc[256];  // coldSrc holds the name cold
    char dir[256];
    char rel[64];
    int gcRead = -1;
    uint16_t v4Port = 0, v6Port = 0;
    int burst = 20000;
    // How long sockets stay open: a back-end that polls sees only those
    // that outlive a poll.
    int holdMs = 0;
    DnsMessage queries[kQCount];
};

// Files under dir named for tag; c, e and f exist, coldSrc holds cold's name.
WorkloadConfig makeWorkloadConfig(const std::string& dir, const std::string& tag, uint16_t v4Port, uint16_t v6Port);

// Runs Ops sent over a pipe and answers each with an int32 (>= 0, or -errno).
// It ends when the pipe closes.
class Worker {
public:
    explicit Worker(WorkloadConfig config);
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    pid_t pid() const { return pid_; }
    const WorkloadConfig& config() const { return config_; }
    // Runs op in the worker; its result, or INT32_MIN when it did not answer.
    int32_t run(Op op, int timeoutMs = 10000);
    // Lets the ForkGrandchild child go on.
    bool releaseGrandchild();
    // Closes the command pipe: the worker exits; waits for it.
    void finish();

private:
    WorkloadConfig config_;
    pid_t pid_ = -1;
    int cmd_ = -1, ack_ = -1, gcWrite_ = -1;
};

// A TCP listener on the loopback address of family; -1 when there is none.
int loopbackListener(int family, uint16_t* port);
bool processGone(pid_t pid, std::chrono::milliseconds timeout);
std::array<uint8_t, 16> addr(int family, const char* text);

#endif
