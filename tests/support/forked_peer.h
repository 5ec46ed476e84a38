// Another process on this host, as an intruder or a second client would be:
// a forked child that may first become another user, runs a body, reports a
// text back, and can be kept alive (holding its connections) until released.
#ifndef WL_TEST_FORKED_PEER_H
#define WL_TEST_FORKED_PEER_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

// The unprivileged user and group tests switch to.
constexpr uid_t kNobody = 65534;

class ForkedPeer {
public:
    struct Options {
        bool as_nobody = false;  // setresgid/setresuid to 65534, no supplementary groups
        bool hold = false;       // after reporting, wait until release()
    };
    // body runs in the child; what it returns comes back through report().
    ForkedPeer(std::function<std::string()> body, Options options);
    ~ForkedPeer();  // releases and reaps the child
    ForkedPeer(const ForkedPeer&) = delete;
    ForkedPeer& operator=(const ForkedPeer&) = delete;

    pid_t pid() const { return m_pid; }
    // The body's text; "<no report>" when the child died or took too long.
    std::string report(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void release();

private:
    pid_t m_pid = -1;
    int m_reportFd = -1;
    int m_releaseFd = -1;
    bool m_reported = false;
    std::string m_report;
};

// Inside a peer: connects to a Unix socket; -1 on failure.
int peer_connect(const std::string& path);
// Inside a peer: reads until the other side closes or the time is up;
// "closed:" then what arrived, or "open:" then what arrived.
std::string peer_read_until_closed(int fd, std::chrono::milliseconds timeout);

#endif
