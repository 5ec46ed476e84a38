// The task socket: accepts clients, reads one request each, queues it for
// its handler and answers with the result once the handler's owner ran it.
// One thread per client, so a task nobody pumps holds up only its client.
#ifndef TASKPUSH_TASK_SOCKET_SERVER_H
#define TASKPUSH_TASK_SOCKET_SERVER_H

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "unix_socket.h"

namespace taskpush {

class HandlerRegistry;

class TaskSocketServer {
public:
    explicit TaskSocketServer(HandlerRegistry& registry);
    ~TaskSocketServer();  // stops and joins every thread, removes the socket file
    TaskSocketServer(const TaskSocketServer&) = delete;
    TaskSocketServer& operator=(const TaskSocketServer&) = delete;

    // 0, or an errno value.
    int start(const std::string& path);

private:
    struct Client {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> finished;
    };

    void acceptLoop();
    void serve(wlsock::UniqueFd fd);
    void reply(int fd, const std::string& text);
    void reapFinished();

    HandlerRegistry& m_registry;
    std::string m_path;
    wlsock::UniqueFd m_listen;
    wlsock::WakeFd m_stop;
    std::atomic<bool> m_stopping{false};
    std::thread m_acceptor;
    std::list<Client> m_clients;  // touched by the acceptor, then by the destructor after the join
};

}  // namespace taskpush

#endif
