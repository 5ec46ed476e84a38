// Scripted stand-ins for everything the module host calls outside its own
// area: the agent's closed libraries (event loop, task push, IPC, assets,
// collector, log files, events) and the other areas of the module (bus,
// engines, timers, model commands). Each records its call in one shared
// call log, so a test can assert the exact order across all of them, and
// returns what the script says.
#ifndef WL_TEST_HOST_DOUBLES_H
#define WL_TEST_HOST_DOUBLES_H

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ipc_handler.h"
#include "kem_ipc.h"
#include "task_push.h"

namespace host_doubles {

struct Script {
    // orv_event_init result.
    int event_init_result = 0;
    // Non-zero: orv_mutex_init fails with it; otherwise the real one runs.
    int mutex_init_result = 0;
    int reg_ipc_handler_result = 0;
    bool task_reg_fails = false;
    bool ipc_create_fails = false;
    bool addr_create_fails = false;
    int msg_recv_result = 0;
    // vrccl_action_init results in order; when used up, the default.
    std::deque<int> vrccl_init_results;
    int vrccl_init_default = 0;
    // cl_ev_create_isolated_thread: its result, and whether the function
    // really runs on a thread (joined by reset()).
    int thread_create_result = 0;
    bool run_thread = false;
    int msgbus_init_result = 1;
    int rasp_handler_result = 0;
    // whitelist_init_engine result; on 0 it sets base_engine_on as the real
    // one does.
    int init_engine_result = 0;
    // get_asset_info_state_v2(kind, call index of that kind, from 0).
    std::function<int(int kind, int call)> asset_state = [](int, int) { return 1; };
    // Result of each model-command handler, by its recorded name.
    std::map<std::string, int> handler_results;
    // Runs inside task_loop_once, before the queued tasks: lets a test act
    // while the module waits.
    std::function<void()> on_task_loop;
    // Runs inside each wl_usleep.
    std::function<void(unsigned int microseconds)> on_sleep;
};

Script& script();

// Clears the call log and all records, restores the default script, joins a
// thread started by the cl_ev double and installs the recording clock.
void reset();

// Appends one entry to the call log.
void record(const std::string& call);
// Empties the call log only; the script and the other records stay.
void clear_calls();
std::vector<std::string> calls();
// The entries that start with the prefix, in order.
std::vector<std::string> calls_starting(const std::string& prefix);
int count(const std::string& call);
// The log from the first entry equal to `call` on (empty if absent).
std::vector<std::string> calls_from(const std::string& call);

// Task channel: queued messages run through the registered function inside
// task_loop_once; their result codes are kept in order.
void queue_task(const std::string& msg);
std::vector<unsigned int> task_results();
task_push_fn registered_task_fn();

// The table reg_ipc_handler was given.
ipc_handler_table* registered_ipc_table();

struct Request {
    void* ipc;
    void* addr;
    unsigned int cmd;
    std::vector<unsigned char> data;
    kem_ipc_reply_fn reply;
    int wait;
};
std::vector<Request> requests();

struct Response {
    unsigned long ctx1;
    unsigned long ctx2;
    unsigned int cmd;
    int flags;
    std::string data;
    unsigned int size;
};
std::vector<Response> responses();

// The subscription made by kem_ipc_msg_recv.
kem_ipc_msg_fn subscribed_fn();
void* subscribed_user();

// Microseconds of every wl_usleep, in order.
std::vector<unsigned int> sleeps();

// Handles the IPC doubles return.
void* task_handle();
void* ipc_handle();
void* addr_handle();

// The last tree a model-command double saw, printed.
std::string last_tree();

}  // namespace host_doubles

#endif
