// The collector as a whole: a watched process's file creation travels through
// back-end, enrichment and socket to a client and into the recording; a
// recording plays back through the real program without root.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

#include "action_records.h"
#include "collector_service.h"
#include "enricher.h"
#include "event_kind.h"
#include "native_encoder.h"
#include "record_json.h"
#include "vrccl_action.h"
#include "vrccl_wire.h"
#include "wire_client.h"

namespace {

std::string scratchDir(const char* name) {
    std::string dir = wlc::normalisePath(::testing::TempDir() + "/" + name + "-" + std::to_string(::getpid()));
    ::mkdir(dir.c_str(), 0700);
    return dir;
}

TEST(CollectorService, AWatchedFileCreationReachesTheClientAndTheRecording) {
    if (::geteuid() != 0) GTEST_SKIP() << "the capture back-ends need root";
    std::string dir = scratchDir("wlc-service");
    wlc::CollectorService service(wlc::makeEbpfBackend(), {dir + "/vrccl.sock", dir + "/recording.jsonl"});
    std::string error;
    if (!service.start(error)) GTEST_SKIP() << "no eBPF here: " << error;

    int go[2];
    ASSERT_EQ(::pipe(go), 0);
    std::string target = dir + "/made-by-child.txt";
    pid_t child = ::fork();
    if (child == 0) {
        char byte;
        if (::read(go[0], &byte, 1) != 1) ::_exit(1);
        ::close(::open(target.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0640));
        ::_exit(::read(go[0], &byte, 1) == 1 ? 0 : 1);  // alive until its record is read
    }
    WireClient client(dir + "/vrccl.sock", 5000);
    std::vector<uint8_t> hello;
    ASSERT_EQ(client.next(hello), VRCCL_HELLO);
    client.subscribe(VRCCL_ACTION_ADD_PID, child);
    for (int i = 0; i < 200 && !service.backend().isWatched(child); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(::write(go[1], "g", 1), 1);
    std::vector<uint8_t> payload = client.record(ACTION_FILE_CREATION);
    ASSERT_GE(payload.size(), sizeof(file_event_info));
    const auto& file = *reinterpret_cast<const file_event_info*>(payload.data());
    EXPECT_STREQ(file.event_name, "FILE_CREATION");
    EXPECT_EQ(file.process_id, child);
    EXPECT_STREQ(file.file_path, target.c_str());
    EXPECT_STREQ(file.file_permissions, "0640");
    EXPECT_EQ(std::strlen(file.process_sha256), 64u);
    ASSERT_EQ(::write(go[1], "g", 1), 1);
    ::waitpid(child, nullptr, 0);

    std::string status = service.status({child}, 1);
    EXPECT_NE(status.find("\"FILE_CREATION\":{\"received\":1,\"sent\":1"), std::string::npos) << status;
    service.stop();
    std::ifstream recording(dir + "/recording.jsonl");
    std::string line;
    ASSERT_TRUE(std::getline(recording, line));
    wlc::ActionRecord recorded;
    ASSERT_TRUE(wlc::recordFromJson(line, recorded, error)) << error;
    EXPECT_EQ(wlc::encodeNative(recorded), payload) << "the recording holds what was sent";
    ::close(go[0]);
    ::close(go[1]);
    ASSERT_EQ(std::system(("rm -rf " + dir).c_str()), 0);
}

TEST(CollectorService, ARecordingPlaysBackThroughTheProgramWithoutRoot) {
    std::string dir = scratchDir("wlc-replay");
    std::vector<wlc::ActionRecord> records(3);
    records[0].kind = wlc::EventKind::ProcessCreation;
    records[0].process.path = "/usr/bin/true";
    records[1].kind = wlc::EventKind::DnsQuery;
    records[1].dns.name = "replayed.example";
    records[2].kind = wlc::EventKind::Listening;
    records[2].net.dstPort = 8080;
    {
        std::ofstream out(dir + "/in.jsonl");
        for (const auto& r : records) out << wlc::recordToJson(r) << "\n";
    }
    pid_t player = ::fork();
    if (player == 0) {
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(126);
        ::execl(WLC_COLLECTOR_BINARY, WLC_COLLECTOR_BINARY, "--replay", (dir + "/in.jsonl").c_str(), "--socket",
                (dir + "/replay.sock").c_str(), "--exit-when-done", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    if (::geteuid() == 0) ::chmod(dir.c_str(), 0777);  // the unprivileged player makes its socket here
    WireClient client(dir + "/replay.sock", 5000);
    std::vector<uint8_t> hello;
    ASSERT_EQ(client.next(hello), VRCCL_HELLO);
    client.subscribe(VRCCL_ACTION_ADD_PID, 1);
    for (const auto& r : records) {
        EXPECT_EQ(client.record(wlc::subTypeOf(r.kind)), wlc::encodeNative(r)) << wlc::eventName(r.kind);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(player, &status, 0), player);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    ASSERT_EQ(std::system(("rm -rf " + dir).c_str()), 0);
}

}  // namespace
