// Handlers by name, each with its queue of tasks, and the socket server
// that lives while at least one handler is registered.
#ifndef TASKPUSH_HANDLER_REGISTRY_H
#define TASKPUSH_HANDLER_REGISTRY_H

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "task.h"
#include "task_push.h"

namespace wl {
template <typename T>
class NoDestructor;
}

namespace taskpush {

class TaskSocketServer;

struct Handler {
    std::string name;
    task_push_fn fn;
    std::mutex lock;
    std::deque<std::shared_ptr<Task>> pending;
};

class HandlerRegistry {
public:
    static HandlerRegistry& instance();
    ~HandlerRegistry();

    // Null when the name is taken.
    Handler* add(const std::string& name, task_push_fn fn);
    bool remove(const std::string& name);
    bool exists(const std::string& name);
    // Null when no handler has that name.
    std::shared_ptr<Task> submit(const std::string& name, std::string msg, unsigned int* result, volatile int* done);
    // -1 for a handle that isn't registered.
    int runPending(Handler* handle);

private:
    HandlerRegistry();
    std::shared_ptr<Handler> find(Handler* handle);

    std::mutex m_lock;  // the map
    std::map<std::string, std::shared_ptr<Handler>> m_handlers;
    std::mutex m_lifecycle;  // add/remove as a whole, with the server's start and stop
    std::unique_ptr<TaskSocketServer> m_server;

    friend class wl::NoDestructor<HandlerRegistry>;
};

}  // namespace taskpush

#endif
