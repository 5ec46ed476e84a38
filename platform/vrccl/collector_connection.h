// One connection to the collector: connecting with the peer check and the
// HELLO, subscriptions, and the reader thread that delivers records.
#ifndef VRCCL_COLLECTOR_CONNECTION_H
#define VRCCL_COLLECTOR_CONNECTION_H

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "counters.h"
#include "record_delivery.h"
#include "unix_socket.h"

namespace vrccl {

struct ConnectionSettings {
    int connectMs = 1000;
    int helloMs = 2000;
    int sendMs = 1000;  // bounds how long a stuck collector holds the caller
    std::string receiver = "transmit_action_data";
};

class CollectorConnection {
    struct Key {};  // only open() constructs

public:
    // Called on the reader thread when the connection ends by itself, not
    // when the destructor ends it; the destructor waits for a call under way.
    using DropHandler = std::function<void(const std::string& why)>;

    // Null when no collector answered; the reason is logged.
    static std::unique_ptr<CollectorConnection> open(const std::string& path, const ConnectionSettings& settings,
                                                     Counters& counters, DropHandler onDrop);
    CollectorConnection(Key, wl::UniqueFd fd, const ConnectionSettings& settings, Counters& counters,
                        DropHandler onDrop);
    // Stops and joins the reader without reporting a drop.
    ~CollectorConnection();
    CollectorConnection(const CollectorConnection&) = delete;
    CollectorConnection& operator=(const CollectorConnection&) = delete;

    bool alive() const { return m_alive.load(); }
    bool onReaderThread() const { return std::this_thread::get_id() == m_reader.get_id(); }
    // 0 when sent. A failed send breaks the stream, so it cuts the
    // connection: the module then reconnects and subscribes again.
    int subscribe(int action, int pid);

private:
    void readLoop();
    // Empty while the stream is sound, else why the connection must end.
    std::string readFrame();
    void cut(const std::string& why);
    void finish(const std::string& why);

    wl::UniqueFd m_fd;
    wlsock::WakeFd m_stop;
    int m_sendMs;
    Counters& m_counters;
    RecordDelivery m_delivery;
    DropHandler m_onDrop;
    std::atomic<bool> m_alive{true};
    std::atomic<bool> m_stopping{false};
    std::mutex m_writeLock;
    std::mutex m_reasonLock;
    std::string m_cutReason;
    std::thread m_reader;
};

}  // namespace vrccl

#endif
