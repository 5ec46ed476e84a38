// The telemetry library: probes' lines over the socket, through the bridge
// and the real bus, into the runtime-application queue.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "bus_library.h"
#include "bus_test_support.h"
#include "dirutils.h"
#include "log_capture.h"
#include "register.h"
#include "whitelist.h"

namespace {

// The port is chosen before the library starts listening on it.
int freeLoopbackPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

// Each test process gets an installation of its own, so that parallel runs
// don't share the socket: <root>/lib is "@", <root>/agent_plugins the stage's.
std::string g_root;

std::string socketPath() { return g_root + "/lib/../var/run/rasp_telemetry.sock"; }

bool makeInstallation() {
    char dir[] = "/tmp/wl_rasp_XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        return false;
    }
    g_root = dir;
    return dirutils_mkdir((g_root + "/lib").c_str(), 0755) == 0 &&
           symlink(WL_TEST_PLUGIN_DIR, (g_root + "/agent_plugins").c_str()) == 0;
}

int connectUnix() {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = socketPath();
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int connectTcp(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool sendAll(int fd, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// One process, one telemetry library: the bridge is set up once for all tests.
class BusTelemetryTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_port = freeLoopbackPort();
        setenv("WL_RASP_TCP_PORT", std::to_string(s_port).c_str(), 1);
        if (!makeInstallation()) {
            return;
        }
        dirutils_set_install_dir((g_root + "/lib").c_str());
        orv_event_init(&g_vr_event, 0, 1);
        s_bus = new BusLibrary();
        s_bus->setSynchronous(false);
        s_attached = whitelist_msgbus_init() == 1 && Register::GetInstance()->registerInit() &&
                     whitelist_init_rasp_handler(transmit_rasp_data, nullptr) == 0;
    }
    static void TearDownTestSuite() {
        Register::GetInstance()->registerUninit();
        whitelist_msgbus_uninit();
        delete s_bus;
        s_bus = nullptr;
        // The library keeps listening until the process ends; only its files go.
        unlink(socketPath().c_str());
        for (const char* path : {"/var/run", "/var", "/lib"}) {
            rmdir((g_root + path).c_str());
        }
        unlink((g_root + "/agent_plugins").c_str());
        rmdir(g_root.c_str());
    }
    void SetUp() override { ASSERT_TRUE(s_attached) << m_log.dump(); }

    static int s_port;
    static bool s_attached;
    static BusLibrary* s_bus;
    QueueReset m_queues;
    LogCapture m_log;
};

int BusTelemetryTest::s_port = 0;
bool BusTelemetryTest::s_attached = false;
BusLibrary* BusTelemetryTest::s_bus = nullptr;

TEST_F(BusTelemetryTest, LineOnTheSocketReachesTheRaspQueue) {
    struct stat info;
    ASSERT_EQ(stat(socketPath().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0666u);

    const int fd = connectUnix();
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(sendAll(fd, "{\"rasp\":\"one\"}\n{\"rasp\":\"two\"}\r\n"));
    ASSERT_TRUE(waitUntil([] { return raspQueued() == 2; })) << m_log.dump();
    EXPECT_EQ(raspTexts(), (std::vector<std::string>{"{\"rasp\":\"one\"}", "{\"rasp\":\"two\"}"}));
    close(fd);
}

TEST_F(BusTelemetryTest, LoopbackPortCarriesTheSameStream) {
    const int fd = connectTcp(s_port);
    ASSERT_GE(fd, 0);
    // A line split over two writes is still one text.
    ASSERT_TRUE(sendAll(fd, "{\"over\":"));
    ASSERT_TRUE(sendAll(fd, "\"tcp\"}\n"));
    ASSERT_TRUE(waitUntil([] { return raspQueued() == 1; })) << m_log.dump();
    EXPECT_EQ(raspTexts()[0], "{\"over\":\"tcp\"}");
    close(fd);
}

TEST_F(BusTelemetryTest, BadLinesAreRefusedAndTheStreamGoesOn) {
    const int fd = connectUnix();
    ASSERT_GE(fd, 0);
    std::string stream = "\n   \t\n";
    stream += std::string(1024 * 1024 + 1, 'x') + "\n";
    stream += "{\"after\":1}\n";
    ASSERT_TRUE(sendAll(fd, stream));
    ASSERT_TRUE(waitUntil([] { return raspQueued() == 1; })) << m_log.dump();
    EXPECT_EQ(raspTexts()[0], "{\"after\":1}");
    EXPECT_EQ(m_log.count("empty telemetry line refused"), 2) << m_log.dump();
    EXPECT_EQ(m_log.count("over 1048576 bytes"), 1) << m_log.dump();
    close(fd);
}

TEST_F(BusTelemetryTest, LastLineWithoutNewlineCountsAtClose) {
    const int fd = connectUnix();
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(sendAll(fd, "{\"tail\":true}"));
    close(fd);
    ASSERT_TRUE(waitUntil([] { return raspQueued() == 1; })) << m_log.dump();
    EXPECT_EQ(raspTexts()[0], "{\"tail\":true}");
}

// Counts texts for the re-registration test.
std::atomic<int> g_secondCallbackTexts{0};
void secondCallback(const char*) { ++g_secondCallbackTexts; }

TEST_F(BusTelemetryTest, RegisteringAgainReplacesTheCallbackWithoutReloading) {
    ASSERT_EQ(whitelist_init_rasp_handler(secondCallback, nullptr), 0);
    const int fd = connectUnix();
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(sendAll(fd, "{\"to\":\"second\"}\n"));
    ASSERT_TRUE(waitUntil([] { return g_secondCallbackTexts.load() == 1; }));
    EXPECT_EQ(raspQueued(), 0u);
    close(fd);
    ASSERT_EQ(whitelist_init_rasp_handler(transmit_rasp_data, nullptr), 0);
    EXPECT_FALSE(m_log.contains("load liborv_rasp failed")) << m_log.dump();
}

}  // namespace
