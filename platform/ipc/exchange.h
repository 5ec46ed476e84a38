// One request and its answer over a connection of its own.
#ifndef KEMIPC_EXCHANGE_H
#define KEMIPC_EXCHANGE_H

#include <cstdint>
#include <string>

namespace kemipc {

struct ExchangeResult {
    int status = 0;        // 0 answered; a negative errno value otherwise
    bool stopped = false;  // the stop descriptor fired: nobody wants the answer
    std::uint32_t cmd = 0;
    std::string data;
};

std::uint32_t next_request_id();

// stop_fd: -1 for none.
ExchangeResult exchange(const std::string& path, std::uint32_t cmd, const void* data, std::uint32_t size,
                        int timeout_ms, int stop_fd);

}  // namespace kemipc

#endif
