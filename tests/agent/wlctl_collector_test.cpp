// wlctl collector: the status query against a stand-in collector socket,
// and the operator's text made from its answer.
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <thread>

#include "collector_client.h"
#include "collector_status.h"
#include "unix_socket.h"
#include "vrccl_wire.h"

namespace {

const char kStatus[] =
    "{\"backend\":\"portable\",\"pid\":77,\"watched\":[1,2],\"clients\":1,"
    "\"kinds\":{\"PROCESS_CREATION\":{\"received\":5,\"sent\":4,\"lost_kernel\":0,\"lost_queue\":1,\"lost_socket\":0}},"
    "\"unsupported\":[\"DNS_QUERY\"]}";

void sendFrame(int fd, uint16_t kind, const void* body, uint32_t length) {
    vrccl_frame_head head = {VRCCL_MAGIC, kind, 0, length};
    ::send(fd, &head, sizeof(head), MSG_NOSIGNAL);
    if (length > 0) ::send(fd, body, length, MSG_NOSIGNAL);
}

// Greets, waits for STATUS_REQ, sends a record first and then the status.
class StatusServer {
public:
    explicit StatusServer(const std::string& path) {
        int err = 0;
        m_listen = wlsock::listen_at(path, 0600, &err);
        m_thread = std::thread([this] {
            wl::UniqueFd peer(::accept(m_listen.get(), nullptr, nullptr));
            if (!peer.valid()) return;
            vrccl_hello hello = {VRCCL_PROTOCOL_VERSION, 77, "portable"};
            sendFrame(peer.get(), VRCCL_HELLO, &hello, sizeof(hello));
            vrccl_frame_head request;
            if (wlsock::read_exact(peer.get(), &request, sizeof(request), -1, wlsock::deadline_in(5000)) !=
                    wlsock::IoResult::Ok ||
                request.kind != VRCCL_STATUS_REQ) {
                return;
            }
            vrccl_record_head record = {1027, 0, 1};
            sendFrame(peer.get(), VRCCL_RECORD, &record, sizeof(record));
            sendFrame(peer.get(), VRCCL_STATUS, kStatus, sizeof(kStatus) - 1);
        });
    }
    ~StatusServer() {
        ::shutdown(m_listen.get(), SHUT_RDWR);
        m_thread.join();
    }

private:
    wl::UniqueFd m_listen;
    std::thread m_thread;
};

}  // namespace

TEST(WlctlCollector, StatusIsFetchedPastOtherFramesAndShownReadably) {
    char pattern[] = "/tmp/wl_ctl_XXXXXX";
    std::string dir = mkdtemp(pattern);
    std::string path = dir + "/vrccl.sock";

    wlctl::CollectorReply missing = wlctl::queryCollector(path, 1000);
    EXPECT_NE(missing.error.find("no collector socket at " + path), std::string::npos) << missing.error;

    {
        StatusServer server(path);
        wlctl::CollectorReply reply = wlctl::queryCollector(path, 5000);
        ASSERT_EQ(reply.error, "");
        EXPECT_EQ(reply.statusJson, kStatus);
        EXPECT_EQ(reply.backend, "portable");
        std::string text;
        ASSERT_TRUE(wlctl::formatCollectorStatus(reply, text));
        for (const char* part : {"collector pid 77, back-end portable, protocol 1, 1 client(s)", "watched pids: 1 2",
                                 "not seen by this back-end: DNS_QUERY"}) {
            EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
        }
        EXPECT_NE(text.find("PROCESS_CREATION                  5          4            0           1            0"),
                  std::string::npos)
            << text;
    }
    wlctl::CollectorReply unreadable{"", 1, 9, "x", "{not json"};
    std::string text;
    EXPECT_FALSE(wlctl::formatCollectorStatus(unreadable, text));
    EXPECT_NE(text.find("unreadable status"), std::string::npos);
    std::filesystem::remove_all(dir);
}
