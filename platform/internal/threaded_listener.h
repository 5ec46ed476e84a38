// A listening Unix socket served one thread per connection, for the local
// servers that answer one request per connection: a slow or stuck client
// holds up only its own thread. Owns the acceptor, the client threads (reaped
// as they finish) and an orderly stop.
#ifndef WL_THREADED_LISTENER_H
#define WL_THREADED_LISTENER_H

#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "unix_socket.h"

namespace wlsock {

class ThreadedListener {
public:
    // The work for one admitted connection, run on its own thread.
    using Serve = std::function<void(wl::UniqueFd)>;
    // Called on the acceptor thread for each connection: the work to do, or
    // an empty Serve when the connection was refused (it may reply first).
    using Accept = std::function<Serve(int fd)>;
    // What an exception in the acceptor or a client said; the agent lives on.
    using Failure = std::function<void(const char* what)>;

    ThreadedListener() = default;
    ~ThreadedListener() { stop(); }
    ThreadedListener(const ThreadedListener&) = delete;
    ThreadedListener& operator=(const ThreadedListener&) = delete;

    // 0, or an errno value.
    int start(const std::string& path, mode_t mode, Accept accept, Failure failure) {
        if (!m_stop.valid()) return EMFILE;
        int err = 0;
        m_listen = listen_at(path, mode, &err);
        if (!m_listen.valid()) return err;
        m_path = path;
        m_accept = std::move(accept);
        m_failure = std::move(failure);
        m_acceptor = std::thread(&ThreadedListener::acceptLoop, this);
        return 0;
    }

    // Joins every thread and removes the socket file; again is harmless.
    // The owner calls it before destroying what its callbacks use.
    void stop() {
        m_stopping = true;
        m_stop.signal();
        if (m_acceptor.joinable()) m_acceptor.join();
        for (Client& client : m_clients) client.thread.join();
        m_clients.clear();
        if (m_listen.valid()) ::unlink(m_path.c_str());
        m_listen.reset();
    }

    // For waits inside Serve: readable once stopping.
    int stop_fd() const { return m_stop.get(); }
    bool stopping() const { return m_stopping; }
    // Connections being served; only meaningful inside Accept.
    std::size_t active() const { return m_clients.size(); }

private:
    struct Client {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> finished;
    };

    void reapFinished() {
        for (auto it = m_clients.begin(); it != m_clients.end();) {
            if (it->finished->load()) {
                it->thread.join();
                it = m_clients.erase(it);
            } else {
                ++it;
            }
        }
    }

    void acceptLoop() {
        while (!m_stopping) {
            try {
                pollfd fds[2] = {{m_listen.get(), POLLIN, 0}, {m_stop.get(), POLLIN, 0}};
                const int rc = ::poll(fds, 2, 1000);
                reapFinished();
                if (rc <= 0 || (fds[1].revents & POLLIN)) continue;
                acceptOne();
            } catch (const std::exception& error) {
                // A thread that could not be made, most likely; the client went with it.
                m_failure(error.what());
            }
        }
    }

    void acceptOne() {
        wl::UniqueFd client(::accept4(m_listen.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!client.valid()) return;
        Serve serve = m_accept(client.get());
        if (!serve) return;
        auto finished = std::make_shared<std::atomic<bool>>(false);
        auto body = [this, finished, serve = std::move(serve)](wl::UniqueFd fd) {
            try {
                serve(std::move(fd));
            } catch (const std::exception& error) {
                m_failure(error.what());
            }
            finished->store(true);
        };
        m_clients.push_back(Client{std::thread(std::move(body), std::move(client)), finished});
    }

    Accept m_accept;
    Failure m_failure;
    std::string m_path;
    wl::UniqueFd m_listen;
    WakeFd m_stop;
    std::atomic<bool> m_stopping{false};
    std::thread m_acceptor;
    std::list<Client> m_clients;  // the acceptor's, then stop()'s after the join
};

}  // namespace wlsock

#endif
