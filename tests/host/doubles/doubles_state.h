// Shared state behind the host doubles; only the doubles' sources use it.
#ifndef WL_TEST_HOST_DOUBLES_STATE_H
#define WL_TEST_HOST_DOUBLES_STATE_H

#include <memory>
#include <mutex>
#include <thread>

#include "host_doubles.h"

namespace host_doubles {

struct FakeEvent {
    bool signalled = false;
};

struct State {
    std::mutex mutex;
    Script script;
    std::vector<std::string> calls;
    std::deque<std::string> tasks;
    std::vector<unsigned int> task_results;
    task_push_fn task_fn = nullptr;
    ipc_handler_table* ipc_table = nullptr;
    std::vector<Request> requests;
    std::vector<Response> responses;
    kem_ipc_msg_fn msg_fn = nullptr;
    void* msg_user = nullptr;
    std::vector<unsigned int> sleeps;
    std::map<int, int> asset_calls;
    std::map<void*, std::unique_ptr<FakeEvent>> events;
    std::vector<std::thread> threads;
    std::string last_tree;
};

State& state();

}  // namespace host_doubles

#endif
