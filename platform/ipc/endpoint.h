// A named endpoint: listens on its socket, receives frames on a thread of
// its own and hands each to the subscriber on the thread that made the
// endpoint; sends requests from worker threads and returns their answers to
// the requesting thread's loop.
#ifndef KEMIPC_ENDPOINT_H
#define KEMIPC_ENDPOINT_H

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "cl_ev.h"
#include "connection.h"
#include "kem_ipc.h"
#include "unix_socket.h"

namespace kemipc {

std::string endpoint_path(const std::string& name);

struct Subscription {
    std::mutex lock;
    kem_ipc_msg_fn fn = nullptr;
    void* user = nullptr;
};

class Endpoint {
public:
    // Null with *err set when the socket can't be made (EADDRINUSE: the name
    // is served already).
    static std::unique_ptr<Endpoint> create(const std::string& name, int* err);
    Endpoint() = default;  // not listening yet: use create
    ~Endpoint();
    Endpoint(const Endpoint&) = delete;
    Endpoint& operator=(const Endpoint&) = delete;

    void subscribe(kem_ipc_msg_fn fn, void* user);
    // 0 when the worker is under way; the answer comes through reply.
    int request(const std::string& path, std::uint32_t cmd, const void* data, std::uint32_t size,
                kem_ipc_reply_fn reply, int wait_seconds);

private:
    void receiveLoop();
    void readFrom(const std::shared_ptr<Connection>& connection);
    void drop(unsigned long id);
    void deliver(unsigned long connection, Frame frame);

    struct Worker {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> finished;
    };
    void reapWorkers();

    std::string m_path;
    wlsock::UniqueFd m_listen;
    wlsock::WakeFd m_stop;
    std::atomic<bool> m_stopping{false};
    cl_ev_loop_t m_owner = nullptr;
    std::shared_ptr<Subscription> m_subscription = std::make_shared<Subscription>();
    std::thread m_receiver;
    std::map<unsigned long, std::shared_ptr<Connection>> m_connections;  // the receiver's
    std::mutex m_workersLock;
    std::list<Worker> m_workers;
};

}  // namespace kemipc

#endif
