// The C face of the IPC.
// The public header comes first so that its functions are exported.
#pragma GCC visibility push(default)
#include "kem_ipc.h"
#pragma GCC visibility pop

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "connection.h"
#include "endpoint.h"
#include "exchange.h"
#include "frame.h"

using kemipc::Endpoint;

namespace {

struct Address {
    std::string path;
};

bool valid_name(const char* name) { return name && *name && !std::strchr(name, '/'); }

bool valid_payload(const void* data, unsigned int size) { return size <= kemipc::kMaxFrameData && (data || size == 0); }

}  // namespace

extern "C" {

kem_ipc_t kem_ipc_create(const char* name, int flags) {
    if (!valid_name(name)) return nullptr;
    int err = 0;
    std::unique_ptr<Endpoint> endpoint = Endpoint::create(name, &err);
    if (!endpoint) errno = err;
    return endpoint.release();  // back under unique_ptr in kem_ipc_destroy
}

void kem_ipc_destroy(kem_ipc_t ipc) { std::unique_ptr<Endpoint> endpoint(static_cast<Endpoint*>(ipc)); }

kem_addr_t kem_addr_create(const char* name, int kind, int flags) {
    if (!valid_name(name)) return nullptr;
    std::string path = kemipc::endpoint_path(name);
    if (path.empty()) return nullptr;
    return std::make_unique<Address>(Address{path}).release();
}

void kem_addr_destroy(kem_addr_t addr) { std::unique_ptr<Address> address(static_cast<Address*>(addr)); }

int kem_ipc_msg_recv(kem_ipc_t ipc, kem_ipc_msg_fn fn, void* user) {
    if (!ipc || !fn) return -1;
    static_cast<Endpoint*>(ipc)->subscribe(fn, user);
    return 0;
}

int kem_ipc_make_request(kem_ipc_t ipc, kem_addr_t addr, unsigned int cmd, const void* data, unsigned int size,
                         kem_ipc_reply_fn reply, void* reserved, int wait) {
    if (!ipc || !addr || !valid_payload(data, size)) return -1;
    return static_cast<Endpoint*>(ipc)->request(static_cast<Address*>(addr)->path, cmd, data, size, reply, wait);
}

int kem_ipc_response(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, int flags, const void* data,
                     unsigned int size) {
    if (!valid_payload(data, size)) return -1;
    std::shared_ptr<kemipc::Connection> connection = kemipc::ConnectionTable::instance().find(ctx1);
    if (!connection) return -1;  // the asker left; nothing to answer
    return connection->send(cmd, static_cast<std::uint32_t>(ctx2), data, size);
}

int kem_ipc_call(const char* name, unsigned int cmd, const void* data, unsigned int size, void* answer,
                 unsigned int answer_size, int wait_ms) {
    if (!valid_name(name) || !valid_payload(data, size) || (!answer && answer_size > 0)) return -1;
    kemipc::ExchangeResult result =
        kemipc::exchange(kemipc::endpoint_path(name), cmd, data, size, wait_ms > 0 ? wait_ms : 0, -1);
    if (result.status < 0) return -1;
    size_t stored = result.data.size() < answer_size ? result.data.size() : answer_size;
    if (stored > 0) std::memcpy(answer, result.data.data(), stored);
    return static_cast<int>(stored);
}

}  // extern "C"
