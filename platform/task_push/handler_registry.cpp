#include "handler_registry.h"

#include "no_destructor.h"
#include <vector>

#include "orv_log.h"
#include "task_socket_server.h"

namespace taskpush {

HandlerRegistry& HandlerRegistry::instance() {
    static wl::NoDestructor<HandlerRegistry> registry;
    return registry.get();
}

HandlerRegistry::HandlerRegistry() = default;
HandlerRegistry::~HandlerRegistry() = default;

Handler* HandlerRegistry::add(const std::string& name, task_push_fn fn) {
    std::lock_guard<std::mutex> life(m_lifecycle);
    auto handler = std::make_shared<Handler>();
    handler->name = name;
    handler->fn = fn;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (!m_handlers.emplace(name, handler).second) return nullptr;
    }
    if (!m_server) {
        auto server = std::make_unique<TaskSocketServer>(*this);
        int err = server->start(push_task_socket_path());
        if (err == 0) {
            m_server = std::move(server);
        } else if (error_output_check(LOG_LVL_WARN)) {
            // In-process submission still works without the socket.
            error_output(LOG_LVL_WARN, "task_push", __LINE__, "task push socket unavailable, errno %d", err);
        }
    }
    return handler.get();
}

bool HandlerRegistry::remove(const std::string& name) {
    std::lock_guard<std::mutex> life(m_lifecycle);
    std::shared_ptr<Handler> handler;
    bool last = false;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        auto it = m_handlers.find(name);
        if (it == m_handlers.end()) return false;
        handler = it->second;
        m_handlers.erase(it);
        last = m_handlers.empty();
    }
    std::deque<std::shared_ptr<Task>> orphans;
    {
        std::lock_guard<std::mutex> lock(handler->lock);
        orphans.swap(handler->pending);
    }
    for (auto& task : orphans) task->cancel();
    if (last) m_server.reset();  // joins its threads; none of them holds m_lifecycle
    return true;
}

bool HandlerRegistry::exists(const std::string& name) {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_handlers.count(name) != 0;
}

std::shared_ptr<Task> HandlerRegistry::submit(const std::string& name, std::string msg, unsigned int* result,
                                              volatile int* done) {
    std::lock_guard<std::mutex> lock(m_lock);
    auto it = m_handlers.find(name);
    if (it == m_handlers.end()) return nullptr;
    auto task = std::make_shared<Task>(std::move(msg), result, done);
    std::lock_guard<std::mutex> queue(it->second->lock);
    it->second->pending.push_back(task);
    return task;
}

std::shared_ptr<Handler> HandlerRegistry::find(Handler* handle) {
    std::lock_guard<std::mutex> lock(m_lock);
    for (auto& entry : m_handlers) {
        if (entry.second.get() == handle) return entry.second;
    }
    return nullptr;
}

int HandlerRegistry::runPending(Handler* handle) {
    std::shared_ptr<Handler> handler = find(handle);
    if (!handler) return -1;
    std::deque<std::shared_ptr<Task>> ready;
    {
        std::lock_guard<std::mutex> lock(handler->lock);
        ready.swap(handler->pending);
    }
    for (auto& task : ready) {
        const std::string& msg = task->message();
        task->finish(handler->fn(0, 0, msg.c_str(), static_cast<unsigned int>(msg.size())));
    }
    return static_cast<int>(ready.size());
}

}  // namespace taskpush
