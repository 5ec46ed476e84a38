// The telemetry socket against intruders and greedy peers: who may connect,
// for whom a line may speak, and the bounds on connections, line sizes,
// buffered bytes and stalls. Each time the rightful probe must still get
// its lines through. The library is loaded per test, so each test has a
// server of its own, started with that test's settings.
#include <dlfcn.h>
#include <sched.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "forked_peer.h"
#include "log_capture.h"
#include "orv_rasp.h"
#include "scoped_env.h"
#include "socket_client.h"
#include "temp_dir.h"

namespace {

std::mutex g_lock;
std::vector<std::string> g_lines;

void record_line(const char* text) {
    std::lock_guard<std::mutex> lock(g_lock);
    g_lines.push_back(text);
}

std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(g_lock);
    return g_lines;
}

std::string line_of(long pid, const std::string& action = "read") {
    return "{\"pid\":" + std::to_string(pid) + ",\"data\":{\"data\":{\"action\":\"" + action + "\"}}}";
}

std::string self_exe() {
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    return n > 0 ? std::string(path, static_cast<size_t>(n)) : std::string();
}

#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadsInForkedChild = false;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kThreadsInForkedChild = false;
#else
constexpr bool kThreadsInForkedChild = true;
#endif
#else
constexpr bool kThreadsInForkedChild = true;
#endif

// Lives until its process exits; only its id matters.
int idle_thread(void*) {
    for (;;) syscall(SYS_pause);
    return 0;
}

// Inside a peer: writes the bytes; false when the server already closed.
bool peer_send(int fd, const std::string& bytes) {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

class TelemetryLimitsTest : public ::testing::Test {
protected:
    explicit TelemetryLimitsTest(std::vector<std::pair<std::string, std::string>> env = {})
        : m_env(withGroup(std::move(env))) {}

    static std::vector<std::pair<std::string, std::string>> withGroup(
        std::vector<std::pair<std::string, std::string>> env) {
        env.push_back({"WL_RASP_GROUP", "nogroup"});  // gid 65534, which the peers take
        return env;
    }

    void SetUp() override {
        if (void* still = dlopen(WL_TEST_PLUGIN_DIR "/liborv_rasp.50.so", RTLD_NOW | RTLD_NOLOAD)) {
            dlclose(still);
            // Some runtimes (ThreadSanitizer's) keep a closed library: ctest runs each test alone.
            GTEST_SKIP() << "an earlier test's server is still loaded; run this test in a process of its own";
        }
        {
            std::lock_guard<std::mutex> lock(g_lock);
            g_lines.clear();
        }
        m_socket = m_dir.path() + "/var/run/rasp_telemetry.sock";
        ASSERT_EQ(mkdir((m_dir.path() + "/var").c_str(), 0755), 0);
        ASSERT_EQ(mkdir((m_dir.path() + "/var/run").c_str(), 0755), 0);
        ASSERT_EQ(mkdir((m_dir.path() + "/var/base").c_str(), 0755), 0);
        ASSERT_TRUE(open_path_to_sockets(m_dir.path()));
        ASSERT_TRUE(load());
    }
    void TearDown() override { unload(); }

    bool load() {
        m_library = dlopen(WL_TEST_PLUGIN_DIR "/liborv_rasp.50.so", RTLD_NOW | RTLD_LOCAL);
        if (m_library == nullptr) return false;
        m_register = reinterpret_cast<int (*)(orv_rasp_tele_fn, void*)>(dlsym(m_library, "orv_rasp_reg_tele_callback"));
        m_counters = reinterpret_cast<int (*)(char*, int)>(dlsym(m_library, "orv_rasp_counters_json"));
        return m_register != nullptr && m_counters != nullptr;
    }
    void unload() {
        if (m_library != nullptr) dlclose(m_library);  // stops the server, removes the socket
        m_library = nullptr;
    }
    int start() { return m_register(record_line, nullptr); }

    // The models know this test's own executable: its forked peers run it.
    void catalogueKnowsThisProgram() {
        std::ofstream out(m_dir.path() + "/var/base/rasp_model.cfg");
        out << "[raspengine]\ncount=2\n[model_0]\nmodel_name=other\nprocess_path=/usr/sbin/nginx\n"
            << "[model_1]\nmodel_name=me\napp_name=me\nprocess_path=" << self_exe() << "\nstudy_time=1\nport=80\n";
    }

    std::string counters() {
        char text[1024];
        const int n = m_counters(text, sizeof(text));
        return n >= 0 && n < static_cast<int>(sizeof(text)) ? std::string(text, static_cast<size_t>(n)) : "<none>";
    }
    long counter(const std::string& name) {
        const std::string text = counters();
        const size_t at = text.find("\"" + name + "\":");
        return at == std::string::npos ? -1 : std::stol(text.substr(at + name.size() + 3));
    }

    // The rightful probe: root, in this process, one whole line.
    bool rootLineArrives(const std::string& line) {
        SocketPeer probe(m_socket);
        if (!probe.connected() || !probe.send(line + "\n")) return false;
        return waitUntil([&line] {
            auto seen = lines();
            return !seen.empty() && seen.back() == line;
        });
    }

    ScopedEnv m_env;
    TempInstallRoot m_dir{"agent"};
    LogCapture m_log;
    std::string m_socket;
    void* m_library = nullptr;
    int (*m_register)(orv_rasp_tele_fn, void*) = nullptr;
    int (*m_counters)(char*, int) = nullptr;
};

TEST_F(TelemetryLimitsTest, SocketIsOpenToItsGroupOnlyAndALiveOneIsNeverReplaced) {
    // Someone already serves the path: the library must not take it over.
    int live = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, m_socket.c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(live, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(live, 4), 0);
    EXPECT_EQ(start(), -1);
    SocketPeer stillThere(m_socket);
    EXPECT_TRUE(stillThere.connected()) << "the live socket was stolen";
    close(live);

    // Once it is dead it is stale, and replaced.
    EXPECT_EQ(start(), 0) << m_log.dump();
    struct stat st;
    ASSERT_EQ(stat(m_socket.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0660u);
    EXPECT_EQ(st.st_gid, kNobody);
    EXPECT_TRUE(rootLineArrives(line_of(1)));
}

struct PeerCase {
    const char* what;
    bool catalogued;
    const char* env_peers;  // WL_RASP_PEERS, or null
    bool admitted;
};

const PeerCase kPeerCases[] = {
    {"UnknownExecutable", false, nullptr, false},
    {"ExecutableTheModelsKnow", true, nullptr, true},
    {"AnyGroupMemberWhenSoConfigured", false, "group", true},
};

class TelemetryPeerTest : public TelemetryLimitsTest, public ::testing::WithParamInterface<PeerCase> {
protected:
    TelemetryPeerTest()
        : TelemetryLimitsTest(
              GetParam().env_peers
                  ? std::vector<std::pair<std::string, std::string>>{{"WL_RASP_PEERS", GetParam().env_peers}}
                  : std::vector<std::pair<std::string, std::string>>{}) {}
};

TEST_P(TelemetryPeerTest, AnotherUsersProcessIsAdmittedOnlyWhenAllowed) {
    const PeerCase& c = GetParam();
    if (c.catalogued) catalogueKnowsThisProgram();
    ASSERT_EQ(start(), 0);
    const std::string path = m_socket;
    ForkedPeer peer(
        [path] {
            int fd = peer_connect(path);
            if (fd < 0) return std::string("<connect failed>");
            peer_send(fd, line_of(getpid()) + "\n");
            return peer_read_until_closed(fd, std::chrono::milliseconds(1500));
        },
        {true, false});
    const std::string report = peer.report();
    if (c.admitted) {
        EXPECT_EQ(report, "open:") << "kept, and never answered";
        EXPECT_TRUE(waitUntil([] { return lines().size() == 1; }));
        EXPECT_EQ(counter("refused_peers"), 0);
    } else {
        EXPECT_EQ(report, "closed:") << "refused without a word";
        EXPECT_TRUE(lines().empty()) << "nothing of the refused peer went on";
        EXPECT_EQ(counter("refused_peers"), 1);
        EXPECT_TRUE(m_log.contains("telemetry peer pid " + std::to_string(peer.pid()))) << m_log.dump();
    }
    EXPECT_TRUE(rootLineArrives(line_of(1))) << "root is always let in";
}

INSTANTIATE_TEST_SUITE_P(Peers, TelemetryPeerTest, ::testing::ValuesIn(kPeerCases),
                         [](const ::testing::TestParamInfo<PeerCase>& info) { return info.param.what; });

TEST_F(TelemetryLimitsTest, ALineMaySpeakOnlyForItsPeersOwnProcessOrThreads) {
    catalogueKnowsThisProgram();
    ASSERT_EQ(start(), 0);
    const std::string path = m_socket;
    ForkedPeer probe(
        [path] {
            // A thread made with clone: a sanitizer may forbid pthreads in a forked child.
            static char stack[64 * 1024] __attribute__((aligned(16)));
            // ThreadSanitizer allows neither in a forked child: there the thread's line names the process.
            const long tid =
                kThreadsInForkedChild
                    ? clone(idle_thread, stack + sizeof(stack),
                            CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | CLONE_THREAD | CLONE_SYSVSEM, nullptr)
                    : getpid();
            if (tid <= 0) return std::string("<no thread>");
            const long self = getpid();
            const std::string lines[] = {
                line_of(self, "own"),
                line_of(1, "init's"),
                line_of(tid, "thread's"),
                "{\"pid\":\"" + std::to_string(self) + "\"}",        // a string: read differently
                "{\"pid\":" + std::to_string(self) + ",\"pid\":1}",  // which one counts?
                "{\"pid\":" + std::to_string(static_cast<long long>(self) + (1LL << 32)) +
                    "}",                                              // low 32 bits are its own
                "{\"data\":{\"pid\":" + std::to_string(self) + "}}",  // not at the top
                "[" + std::to_string(self) + "]",
                line_of(self, "again"),
            };
            int fd = peer_connect(path);
            std::string all;
            for (const std::string& line : lines) all += line + "\n";
            peer_send(fd, all);
            const std::string got = peer_read_until_closed(fd, std::chrono::milliseconds(1500));
            return got + " " + std::to_string(tid);
        },
        {true, false});
    const std::string report = probe.report();
    ASSERT_EQ(report.rfind("open: ", 0), 0u) << report << "\n" << m_log.dump();
    const long tid = std::stol(report.substr(6));
    ASSERT_TRUE(waitUntil([] { return lines().size() >= 3; })) << m_log.dump();
    EXPECT_TRUE(lines() == (std::vector<std::string>{line_of(probe.pid(), "own"), line_of(tid, "thread's"),
                                                     line_of(probe.pid(), "again")}));
    EXPECT_EQ(counter("refused_pid"), 6) << counters();
    EXPECT_TRUE(rootLineArrives(line_of(1, "root may speak for any"))) << "root is trusted with any pid";
}

class TelemetryFloodTest : public TelemetryLimitsTest {
protected:
    TelemetryFloodTest() : TelemetryLimitsTest({{"WL_RASP_MAX_PER_PEER", "3"}}) {}
};

TEST_F(TelemetryFloodTest, OneUserGetsItsShareAndOthersAreStillServed) {
    catalogueKnowsThisProgram();
    ASSERT_EQ(start(), 0);
    const std::string path = m_socket;
    ForkedPeer flood(
        [path] {
            std::string fourth;
            for (int i = 0; i < 4; ++i) {
                int fd = peer_connect(path);
                if (fd < 0) return std::string("<connect failed>");
                if (i == 3) fourth = peer_read_until_closed(fd, std::chrono::seconds(5));
            }
            return fourth;
        },
        {true, true});
    EXPECT_EQ(flood.report(), "closed:") << "the fourth connection of one user is one too many";
    EXPECT_TRUE(rootLineArrives(line_of(1))) << "another peer still gets a slot";
    EXPECT_EQ(counter("refused_busy"), 1);
    flood.release();
}

class TelemetryStallTest : public TelemetryLimitsTest {
protected:
    TelemetryStallTest() : TelemetryLimitsTest({{"WL_RASP_IDLE_MS", "300"}}) {}
};

TEST_F(TelemetryStallTest, AHalfSentLineThatStallsIsCutButAQuietProbeStays) {
    ASSERT_EQ(start(), 0);
    SocketPeer quiet(m_socket);
    SocketPeer stalled(m_socket);
    ASSERT_TRUE(stalled.send("{\"pid\":1,"));
    std::string got;
    EXPECT_TRUE(stalled.readUntilClosed(&got, std::chrono::seconds(3)));
    EXPECT_FALSE(quiet.readUntilClosed(&got, std::chrono::milliseconds(300))) << "between lines a probe may rest";
    EXPECT_EQ(counter("idle_closed"), 1);
    EXPECT_EQ(counter("dropped_lines"), 1) << "the half line is counted, not delivered";
    ASSERT_TRUE(quiet.send(line_of(1) + "\n"));
    EXPECT_TRUE(waitUntil([] { return lines().size() == 1; }));
}

TEST_F(TelemetryLimitsTest, BadLinesAreRefusedAndTheNextGoodOneGetsThrough) {
    struct Case {
        const char* what;
        std::string line;
        const char* counter;
    };
    const Case cases[] = {
        {"one byte over the limit", std::string(1024 * 1024 + 1, 'x'), "oversize_lines"},
        {"nested too deep for the module's parser", std::string(300, '[') + std::string(300, ']'), "dropped_lines"},
        {"blank", "  \t", "dropped_lines"},
    };
    ASSERT_EQ(start(), 0);
    SocketPeer probe(m_socket);
    long delivered = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const long before = counter(c.counter);
        const std::string good = line_of(1, c.what);
        ASSERT_TRUE(probe.send(c.line + "\n" + good + "\n"));
        ++delivered;
        ASSERT_TRUE(waitUntil([delivered] { return static_cast<long>(lines().size()) == delivered; })) << counters();
        EXPECT_EQ(lines().back(), good);
        EXPECT_EQ(counter(c.counter), before + 1);
    }
    EXPECT_EQ(counter("lines"), delivered);
}

class TelemetryBufferTest : public TelemetryLimitsTest {
protected:
    TelemetryBufferTest() : TelemetryLimitsTest({{"WL_RASP_MAX_BUFFERED", "100000"}}) {}
};

TEST_F(TelemetryBufferTest, ThePeerThatOverflowsTheBufferGoesAndTheOtherFinishesItsLine) {
    ASSERT_EQ(start(), 0);
    const std::string head = "{\"pid\":1,\"pad\":\"" + std::string(60000, 'p');
    SocketPeer first(m_socket);
    SocketPeer second(m_socket);
    ASSERT_TRUE(first.send(head));
    ASSERT_TRUE(waitUntil([this] { return counter("connections") == 2; }));
    usleep(100000);  // the first half is buffered before the second arrives
    ASSERT_TRUE(second.send(head));
    std::string got;
    EXPECT_TRUE(second.readUntilClosed(&got, std::chrono::seconds(3)));
    EXPECT_EQ(counter("overflow_closed"), 1);
    ASSERT_TRUE(first.send("\"}\n"));
    ASSERT_TRUE(waitUntil([] { return lines().size() == 1; }));
    EXPECT_EQ(lines()[0], head + "\"}");
}

TEST_F(TelemetryLimitsTest, CountersTextFitsOrTellsTheSizeNeeded) {
    ASSERT_EQ(start(), 0);
    const std::string full = counters();
    ASSERT_EQ(full.front(), '{');
    ASSERT_EQ(full.back(), '}');
    const int needed = static_cast<int>(full.size()) + 1;
    std::string small(8, '#');
    EXPECT_EQ(m_counters(&small[0], 8), needed);
    EXPECT_EQ(small, std::string(8, '#')) << "nothing written when it doesn't fit";
    EXPECT_EQ(m_counters(nullptr, 0), needed);
    std::string exact(static_cast<size_t>(needed), '#');
    EXPECT_EQ(m_counters(&exact[0], needed), needed - 1);
    EXPECT_EQ(exact, full + '\0');
}

}  // namespace
