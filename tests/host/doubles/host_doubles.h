// Scripted stand-ins for everything the module host calls outside its own
// area: the agent's closed libraries and the module's other areas. Each
// records its call in the call log (call_log.h), so a test can assert the
// exact order across all of them, and returns the result scripted for its
// function name there, or what the state says.
#ifndef WL_TEST_HOST_DOUBLES_H
#define WL_TEST_HOST_DOUBLES_H

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "call_log.h"
#include "ipc_handler.h"
#include "kem_ipc.h"
#include "task_push.h"

namespace host_doubles {

struct Request {
    unsigned int cmd;
    std::vector<unsigned char> data;
    kem_ipc_reply_fn reply;
    int wait;
};

struct State {
    // Script (results by function name are in the call log: for a function
    // that returns a handle or a flag, any non-zero one makes it fail).
    std::deque<int> vrccl_init_results;  // in order; then vrccl_init_default
    int vrccl_init_default = 0;
    bool run_thread = false;  // the thread function really runs (joined by reset)
    std::function<int(int kind, int call)> asset_state = [](int, int) { return 1; };

    // Records.
    std::deque<std::string> tasks;  // run through the task function by task_loop_once
    std::vector<unsigned int> task_results;
    task_push_fn task_fn = nullptr;
    ipc_handler_table* ipc_table = nullptr;
    std::vector<Request> requests;
    kem_ipc_msg_fn msg_fn = nullptr;
    std::map<int, int> asset_calls;
    std::map<void*, std::unique_ptr<bool>> events;  // signalled flags
};

// Guards the task queue and function; the rest is for single-threaded use.
std::mutex& mutex();
State& state();
// Joins a thread the cl_ev double started, restores the default state, empties
// the call log and installs the recording clock.
void reset();

using call_log::calls;
using call_log::calls_from;
using call_log::count;
using call_log::record;
using call_log::scripted;

// Handles the IPC doubles return.
void* task_handle();
void* ipc_handle();
void* addr_handle();

}  // namespace host_doubles

#endif
