// The collector's record stream as the client library reads it: a fake
// collector greets correctly and then sends the input; the connection's own
// reader thread cuts it into frames and delivers records here.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "collector_connection.h"
#include "fuzz_check.h"
#include "orv_log.h"
#include "vrccl_action.h"
#include "vrccl_wire.h"

namespace {

struct Collector {
    std::string path;
    int listener = -1;
};

Collector& collector() {
    static Collector c;
    return c;
}

// Greeting then the input, written from a thread of its own: the reader may
// need to drain the socket before the rest fits.
void serve(const std::string& stream) {
    int fd = ::accept(collector().listener, nullptr, nullptr);
    if (fd < 0) return;
    vrccl_frame_head head = {VRCCL_MAGIC, VRCCL_HELLO, 0, sizeof(vrccl_hello)};
    vrccl_hello hello = {VRCCL_PROTOCOL_VERSION, 1, "replay"};
    std::string out(reinterpret_cast<const char*>(&head), sizeof head);
    out.append(reinterpret_cast<const char*>(&hello), sizeof hello);
    out += stream;
    for (size_t done = 0; done < out.size();) {
        ssize_t n = ::send(fd, out.data() + done, out.size() - done, MSG_NOSIGNAL);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    ::shutdown(fd, SHUT_WR);
    char sink[256];
    while (::read(fd, sink, sizeof sink) > 0) {
    }
    ::close(fd);
}

}  // namespace

// Found by the library through dlsym, as the module's is.
extern "C" __attribute__((visibility("default"))) void transmit_action_data(const action_collector_msg* msg) {
    FUZZ_CHECK(msg != nullptr);
    FUZZ_CHECK(msg->size <= VRCCL_MAX_BODY);
    // Every payload byte must be readable: ASan reports any overrun here.
    unsigned sum = 0;
    for (uint32_t i = 0; i < msg->size; ++i) sum += msg->payload[i];
    asm volatile("" : : "r"(sum));  // keeps the reads from being optimised away
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    error_output_set_level(0);
    char dir[] = "/tmp/wl_fuzz_vrccl_XXXXXX";
    if (!::mkdtemp(dir)) std::abort();
    collector().path = std::string(dir) + "/vrccl.sock";
    collector().listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, collector().path.c_str(), sizeof addr.sun_path - 1);
    if (::bind(collector().listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(collector().listener, 4) != 0) {
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static vrccl::Counters counters;
    std::string stream(reinterpret_cast<const char*>(data), size);
    std::thread server([&stream] { serve(stream); });
    std::mutex lock;
    std::condition_variable ended;
    bool dropped = false;
    {
        vrccl::ConnectionSettings settings;
        auto connection =
            vrccl::CollectorConnection::open(collector().path, settings, counters, [&](const std::string&) {
                std::lock_guard<std::mutex> guard(lock);
                dropped = true;
                ended.notify_all();
            });
        FUZZ_CHECK(connection != nullptr);
        // The stream always ends, so the connection must notice by itself.
        std::unique_lock<std::mutex> guard(lock);
        FUZZ_CHECK(ended.wait_for(guard, std::chrono::seconds(10), [&] { return dropped; }));
        FUZZ_CHECK(!connection->alive());
    }
    server.join();
    return 0;
}
