// collector_bench STAGE_DIR [ebpf|portable]: runs the real wl-collector from
// STAGE_DIR/vr_agent and the real client library, and prints
//   (a) the collector's CPU while unwatched processes do 100,000 file
//       operations and 10,000 connections, against its idle CPU, and the
//       workload's own time with and without the collector;
//   (b) latency from a watched process's syscall to transmit_action_data;
//   (c) records lost when a watched process makes 10,000 events a second.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "action_records.h"
#include "dirutils.h"
#include "vrccl_action.h"

namespace {

uint64_t monotonicNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

// User and system CPU of a process, in seconds.
double cpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::size_t close = stat.rfind(')');
    if (close == std::string::npos) return 0;
    std::vector<std::string> fields;
    std::size_t at = close + 2;
    while (at < stat.size()) {
        std::size_t space = stat.find(' ', at);
        if (space == std::string::npos) space = stat.size();
        fields.push_back(stat.substr(at, space - at));
        at = space + 1;
    }
    if (fields.size() < 13) return 0;
    return (std::atof(fields[11].c_str()) + std::atof(fields[12].c_str())) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// What the client library hands over, counted by the benchmark.
struct Received {
    std::atomic<uint64_t> records{0};
    std::atomic<uint64_t> rateFiles{0};
    uint64_t* sentAt = nullptr;  // per latency file, written by the child
    std::vector<uint64_t> latencies;
    std::atomic<bool> collecting{false};
} g_received;

}  // namespace

extern "C" __attribute__((visibility("default"))) void transmit_action_data(const action_collector_msg* msg) {
    uint64_t now = monotonicNs();
    ++g_received.records;
    if (msg->type != ACTION_FILE_CREATION || msg->size < sizeof(file_event_info)) return;
    const auto* file = reinterpret_cast<const file_event_info*>(msg->payload);
    const char* name = std::strrchr(file->file_path, '/');
    if (!name) return;
    unsigned index = 0;
    if (std::sscanf(name, "/lat-%u", &index) == 1 && g_received.sentAt && index < 100000 && g_received.collecting)
        g_received.latencies.push_back(now - g_received.sentAt[index]);  // one client thread: no lock needed
    else if (std::strncmp(name, "/rate-", 6) == 0)
        ++g_received.rateFiles;
}

namespace {

// 50,000 files created and removed, then 10,000 loopback connections.
double unwatchedWorkload(const std::string& dir) {
    uint64_t begin = monotonicNs();
    for (int i = 0; i < 50000; ++i) {
        std::string path = dir + "/w" + std::to_string(i);
        int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
        if (fd >= 0) ::close(fd);
        ::unlink(path.c_str());
    }
    int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof addr;
    ::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::listen(listener, 4096);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &size);
    for (int i = 0; i < 10000; ++i) {
        int s = ::socket(AF_INET, SOCK_STREAM, 0);
        ::connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        int accepted = ::accept(listener, nullptr, nullptr);
        ::close(accepted);
        ::close(s);
    }
    ::close(listener);
    return static_cast<double>(monotonicNs() - begin) / 1e9;
}

// A watched child making files at a steady rate; start with the pipe.
pid_t spawnMaker(const std::string& dir, const char* prefix, int count, int perSecond, int goFd) {
    pid_t child = ::fork();
    if (child != 0) return child;
    char go;
    if (::read(goFd, &go, 1) != 1) ::_exit(1);
    uint64_t begin = monotonicNs();
    for (int i = 0; i < count; ++i) {
        uint64_t due = begin + static_cast<uint64_t>(i) * 1000000000ull / static_cast<uint64_t>(perSecond);
        while (monotonicNs() < due) {
        }
        std::string path = dir + "/" + prefix + std::to_string(i);
        if (g_received.sentAt && std::strcmp(prefix, "lat-") == 0) g_received.sentAt[i] = monotonicNs();
        int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
        if (fd >= 0) ::close(fd);
    }
    ::_exit(0);
}

bool runWatched(const std::string& dir, const char* prefix, int count, int perSecond) {
    int go[2];
    if (::pipe(go) != 0) return false;
    pid_t child = spawnMaker(dir, prefix, count, perSecond, go[0]);
    vrccl_action_subscribe(VRCCL_ACTION_ADD_PID, child, -1);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the subscription reaches the kernel
    g_received.collecting = true;
    ssize_t rc = ::write(go[1], "g", 1);
    (void)rc;
    int status = 0;
    ::waitpid(child, &status, 0);
    std::this_thread::sleep_for(std::chrono::seconds(2));  // the tail drains
    g_received.collecting = false;
    vrccl_action_subscribe(VRCCL_ACTION_DEL_PID, child, -1);
    ::close(go[0]);
    ::close(go[1]);
    return true;
}

uint64_t percentile(std::vector<uint64_t> values, double p) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, static_cast<std::size_t>(p * static_cast<double>(values.size())))];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: collector_bench STAGE_DIR [ebpf|portable]\n");
        return 2;
    }
    if (::geteuid() != 0) {
        std::fprintf(stderr, "collector_bench: needs root (the collector watches processes)\n");
        return 2;
    }
    std::string stage = argv[1];
    std::string backend = argc > 2 ? argv[2] : "ebpf";
    char pattern[] = "/tmp/wlc-bench-XXXXXX";
    std::string root = ::mkdtemp(pattern);
    for (const char* dir : {"/lib", "/var", "/var/run", "/work"}) ::mkdir((root + dir).c_str(), 0755);
    std::string work = root + "/work";
    dirutils_set_install_dir((root + "/lib").c_str());

    double baseline = unwatchedWorkload(work);
    pid_t collector = ::fork();
    if (collector == 0) {
        std::string socketPath = root + "/var/run/vrccl.sock";
        std::string binary = stage + "/vr_agent/wl-collector";
        ::execl(binary.c_str(), binary.c_str(), "--socket", socketPath.c_str(), "--backend", backend.c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int tries = 0;
    while (vrccl_action_init() != 0 && ++tries < 50) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (tries >= 50) {
        std::fprintf(stderr, "collector_bench: the collector did not answer\n");
        ::kill(collector, SIGTERM);
        return 1;
    }
    std::printf("back-end: %s\n", backend.c_str());

    double idleStart = cpuSeconds(collector);
    std::this_thread::sleep_for(std::chrono::seconds(5));
    double idleCpu = (cpuSeconds(collector) - idleStart) / 5.0;
    double busyStart = cpuSeconds(collector);
    double withCollector = unwatchedWorkload(work);
    double busyCpu = (cpuSeconds(collector) - busyStart) / withCollector;
    std::printf(
        "(a) unwatched: 100,000 file operations and 10,000 connections in %.2f s (%.2f s without the "
        "collector); collector CPU %.3f%% of a core while busy, %.3f%% idle\n",
        withCollector, baseline, busyCpu * 100, idleCpu * 100);

    const int latencyCount = 2000;
    g_received.sentAt = static_cast<uint64_t*>(
        ::mmap(nullptr, sizeof(uint64_t) * latencyCount, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    runWatched(work, "lat-", latencyCount, 500);
    std::printf("(b) syscall to transmit_action_data: median %.1f us, p99 %.1f us over %zu of %d records\n",
                static_cast<double>(percentile(g_received.latencies, 0.5)) / 1000.0,
                static_cast<double>(percentile(g_received.latencies, 0.99)) / 1000.0, g_received.latencies.size(),
                latencyCount);

    const int rateCount = 50000;
    runWatched(work, "rate-", rateCount, 10000);
    uint64_t got = g_received.rateFiles.load();
    std::printf("(c) 10,000 events/s for 5 s: %llu of %d records arrived, %lld lost\n",
                static_cast<unsigned long long>(got), rateCount,
                static_cast<long long>(rateCount) - static_cast<long long>(got));

    vrccl_action_free();
    ::kill(collector, SIGTERM);
    ::waitpid(collector, nullptr, 0);
    std::string cleanup = "rm -rf " + root;
    return std::system(cleanup.c_str()) == 0 ? 0 : 1;
}
