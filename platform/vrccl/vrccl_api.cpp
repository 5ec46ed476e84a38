// The library's C API over one process-wide client state.
// The public headers come first so that their functions are exported.
#pragma GCC visibility push(default)
#include "vrccl_action.h"
#include "vrccl_control.h"
#pragma GCC visibility pop

#include <memory>
#include <mutex>
#include <string>

#include "collector_connection.h"
#include "counters.h"
#include "no_destructor.h"
#include "offline_notice.h"
#include "unix_socket.h"
#include "vrccl_log.h"
#include "vrccl_wire.h"

namespace {

struct Client {
    std::mutex lock;  // init, free, subscribe and the settings
    vrccl::ConnectionSettings settings;
    vrccl::Counters counters;
    vrccl::OfflineNotice notice;
    std::unique_ptr<vrccl::CollectorConnection> connection;

    // Called on the reader thread, which never takes the lock.
    void onDrop(const std::string&) {
        if (notice.publish()) ++counters.offlinePublished;
    }
};

Client& client() {
    static wl::NoDestructor<Client> state;  // the work thread may still call in while the process exits
    return state.get();
}

}  // namespace

extern "C" {

// Connected and sound: 0 at once. A connection that dropped is replaced.
int vrccl_action_init(void) {
    Client& c = client();
    std::lock_guard<std::mutex> lock(c.lock);
    if (c.connection && c.connection->alive()) return 0;
    c.connection.reset();
    std::string path = wlsock::resolve_path(VRCCL_SOCKET_PATTERN);
    c.connection =
        vrccl::CollectorConnection::open(path, c.settings, c.counters, [&c](const std::string& why) { c.onDrop(why); });
    if (!c.connection) return -1;
    c.notice.attach();  // a failure is logged; records still flow
    return 0;
}

void vrccl_action_free(void) {
    Client& c = client();
    std::lock_guard<std::mutex> lock(c.lock);
    if (c.connection && c.connection->onReaderThread()) {
        VRCCL_LOG(LOG_LVL_ERROR, "vrccl_action_free called while delivering a record: ignored");
        return;
    }
    c.connection.reset();
    c.notice.detach();
}

int vrccl_action_subscribe(int action, int id, int reserved) {
    (void)reserved;
    if (action != VRCCL_ACTION_ADD_PID && action != VRCCL_ACTION_DEL_PID) {
        VRCCL_LOG(LOG_LVL_WARN, "unknown collector action %d for pid %d refused", action, id);
        return -1;
    }
    Client& c = client();
    std::lock_guard<std::mutex> lock(c.lock);
    if (!c.connection) return -1;
    return c.connection->subscribe(action, id);
}

void vrccl_control_counters(vrccl_counters* out) {
    if (out == nullptr) return;
    const vrccl::Counters& n = client().counters;
    out->delivered = n.delivered;
    out->undeliverable = n.undeliverable;
    out->lost = n.lost;
    out->protocol_errors = n.protocolErrors;
    out->drops = n.drops;
    out->offline_published = n.offlinePublished;
}

void vrccl_control_reset(void) {
    Client& c = client();
    std::lock_guard<std::mutex> lock(c.lock);
    c.counters.reset();
    c.settings = vrccl::ConnectionSettings();
}

void vrccl_control_set_timeouts(int connect_ms, int hello_ms, int send_ms) {
    Client& c = client();
    std::lock_guard<std::mutex> lock(c.lock);
    c.settings.connectMs = connect_ms;
    c.settings.helloMs = hello_ms;
    c.settings.sendMs = send_ms;
}

void vrccl_control_set_receiver(const char* symbol) {
    Client& c = client();
    std::lock_guard<std::mutex> lock(c.lock);
    c.settings.receiver = symbol != nullptr ? symbol : vrccl::ConnectionSettings().receiver;
}

}  // extern "C"
