// The telemetry library: probes' lines over the socket, through the bridge
// and the real bus, into the runtime-application queue.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "bus_library.h"
#include "bus_test_support.h"
#include "dirutils.h"
#include "log_capture.h"
#include "register.h"
#include "whitelist.h"

namespace {

std::string g_root;

std::string socketPath() { return g_root + "/lib/../var/run/rasp_telemetry.sock"; }

// Connects to the probes' socket and writes the stream; -1 on failure.
int sendToSocket(const std::string& bytes) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath().c_str(), sizeof(address.sun_path) - 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size())) {
        close(fd);
        return -1;
    }
    return fd;
}

// An installation of the test's own, so that parallel runs don't share the
// socket: <root>/lib is "@", <root>/agent_plugins the stage's.
class BusTelemetryTest : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/wl_rasp_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        g_root = dir;
        ASSERT_EQ(dirutils_mkdir((g_root + "/lib").c_str(), 0755), 0);
        ASSERT_EQ(symlink(WL_TEST_PLUGIN_DIR, (g_root + "/agent_plugins").c_str()), 0);
        dirutils_set_install_dir((g_root + "/lib").c_str());
        orv_event_init(&g_vr_event, 0, 1);
        ASSERT_TRUE(m_bus.loaded()) << "build the tulmb target first";
        m_bus.setSynchronous(false);
        ASSERT_EQ(whitelist_msgbus_init(), 1) << m_log.dump();
        ASSERT_TRUE(Register::GetInstance()->registerInit()) << m_log.dump();
        ASSERT_EQ(whitelist_init_rasp_handler(transmit_rasp_data, nullptr), 0) << m_log.dump();
    }
    void TearDown() override {
        Register::GetInstance()->registerUninit();
        whitelist_msgbus_uninit();
        // The library keeps listening until the process ends; only its files go.
        std::filesystem::remove_all(g_root);
    }

    BusLibrary m_bus;
    QueueReset m_queues;
    LogCapture m_log;
};

TEST_F(BusTelemetryTest, LinesOnTheSocketReachTheRaspQueueAndBadOnesAreRefused) {
    struct stat info;
    ASSERT_EQ(stat(socketPath().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0660u) << "its group's members only";

    const std::string atLimit(1024 * 1024, 'y');
    const std::string tooLong = atLimit + 'x';
    const int fd = sendToSocket("one\n\n   \t\n" + tooLong + "\n" + atLimit + "\ntwo\r\ntail");
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(waitUntil([] { return raspQueued() == 3; })) << m_log.dump();
    close(fd);
    ASSERT_TRUE(waitUntil([] { return raspQueued() == 4; })) << "the last line counts at close";
    EXPECT_TRUE(raspTexts() == (std::vector<std::string>{"one", atLimit, "two", "tail"}))
        << "in order, the line at the limit kept";
    void* library = dlopen(WL_TEST_PLUGIN_DIR "/liborv_rasp.50.so", RTLD_NOW);
    auto counters = reinterpret_cast<int (*)(char*, int)>(dlsym(library, "orv_rasp_counters_json"));
    ASSERT_NE(counters, nullptr);
    char text[512];
    ASSERT_GT(counters(text, sizeof(text)), 0);
    EXPECT_NE(std::strstr(text, "\"dropped_lines\":2,"), nullptr) << text;  // the two blank ones
    EXPECT_NE(std::strstr(text, "\"oversize_lines\":1,"), nullptr) << text;
    EXPECT_EQ(m_log.count("refused: empty"), 1) << "said once, not for every line\n" << m_log.dump();
    dlclose(library);
}

}  // namespace
