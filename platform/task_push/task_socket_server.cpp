#include "task_socket_server.h"

#include <chrono>

#include "handler_registry.h"
#include "request_line.h"

namespace taskpush {

namespace {
constexpr size_t kMaxClients = 32;
constexpr int kLineTimeoutMs = 10000;
constexpr int kBodyTimeoutMs = 30000;
constexpr int kReplyTimeoutMs = 5000;
}  // namespace

TaskSocketServer::TaskSocketServer(HandlerRegistry& registry) : m_registry(registry) {}

TaskSocketServer::~TaskSocketServer() {
    m_stopping = true;
    m_stop.signal();
    if (m_acceptor.joinable()) m_acceptor.join();
    for (Client& client : m_clients) client.thread.join();
    if (m_listen.valid()) ::unlink(m_path.c_str());
}

int TaskSocketServer::start(const std::string& path) {
    if (!m_stop.valid()) return EMFILE;
    int err = 0;
    m_listen = wlsock::listen_at(path, 0600, &err);
    if (!m_listen.valid()) return err;
    m_path = path;
    m_acceptor = std::thread(&TaskSocketServer::acceptLoop, this);
    return 0;
}

void TaskSocketServer::reapFinished() {
    for (auto it = m_clients.begin(); it != m_clients.end();) {
        if (it->finished->load()) {
            it->thread.join();
            it = m_clients.erase(it);
        } else {
            ++it;
        }
    }
}

void TaskSocketServer::acceptLoop() {
    while (!m_stopping) {
        pollfd fds[2] = {{m_listen.get(), POLLIN, 0}, {m_stop.get(), POLLIN, 0}};
        int rc = ::poll(fds, 2, 1000);
        reapFinished();
        if (rc <= 0 || (fds[1].revents & POLLIN)) continue;
        wlsock::UniqueFd client(::accept4(m_listen.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!client.valid()) continue;
        if (m_clients.size() >= kMaxClients) {
            reply(client.get(), "ERR busy\n");
            continue;
        }
        auto finished = std::make_shared<std::atomic<bool>>(false);
        auto body = [this, finished](wlsock::UniqueFd fd) {
            serve(std::move(fd));
            finished->store(true);
        };
        m_clients.push_back(Client{std::thread(body, std::move(client)), finished});
    }
}

void TaskSocketServer::reply(int fd, const std::string& text) {
    wlsock::write_all(fd, text.data(), text.size(), -1, wlsock::deadline_in(kReplyTimeoutMs));
}

void TaskSocketServer::serve(wlsock::UniqueFd fd) {
    std::string line;
    auto lineDeadline = wlsock::deadline_in(kLineTimeoutMs);
    for (;;) {
        char c = 0;
        if (wlsock::read_exact(fd.get(), &c, 1, m_stop.get(), lineDeadline) != wlsock::IoResult::Ok) return;
        if (c == '\n') break;
        if (line.size() >= kMaxLine) {
            reply(fd.get(), "ERR malformed request\n");
            return;
        }
        line.push_back(c);
    }
    std::string name;
    unsigned long length = 0;
    switch (parse_request_line(line, &name, &length)) {
        case LineResult::Malformed:
            reply(fd.get(), "ERR malformed request\n");
            return;
        case LineResult::TooLarge:
            reply(fd.get(), "ERR too large\n");
            return;
        case LineResult::Ok:
            break;
    }
    if (!m_registry.exists(name)) {
        reply(fd.get(), "ERR unknown handler\n");
        return;
    }
    std::string body(length, '\0');
    if (length > 0 &&
        wlsock::read_exact(fd.get(), &body[0], length, m_stop.get(), wlsock::deadline_in(kBodyTimeoutMs)) !=
            wlsock::IoResult::Ok) {
        return;  // the client gave up; nothing was queued
    }
    std::shared_ptr<Task> task = m_registry.submit(name, std::move(body), nullptr, nullptr);
    if (!task) {
        reply(fd.get(), "ERR unknown handler\n");
        return;
    }
    unsigned int code = 0;
    Task::State state = Task::State::Queued;
    while (state == Task::State::Queued && !m_stopping) {
        state = task->waitFor(std::chrono::milliseconds(200), &code);
    }
    if (state == Task::State::Done) {
        reply(fd.get(), std::to_string(code) + "\n");
    } else {
        reply(fd.get(), "ERR handler gone\n");
    }
}

}  // namespace taskpush
