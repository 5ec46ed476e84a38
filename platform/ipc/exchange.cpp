#include "exchange.h"

#include <atomic>

#include "frame.h"
#include "unix_socket.h"

namespace kemipc {

std::uint32_t next_request_id() {
    static std::atomic<std::uint32_t> next{1};
    std::uint32_t id = next.fetch_add(1);
    return id ? id : next.fetch_add(1);
}

namespace {

ExchangeResult failed(int status) {
    ExchangeResult result;
    result.status = status;
    return result;
}

ExchangeResult from_io(wlsock::IoResult io) {
    ExchangeResult result;
    switch (io) {
        case wlsock::IoResult::Timeout: result.status = -ETIMEDOUT; break;
        case wlsock::IoResult::Stopped:
            result.status = -ECANCELED;
            result.stopped = true;
            break;
        case wlsock::IoResult::Closed: result.status = -ECONNRESET; break;
        default: result.status = -EIO;
    }
    return result;
}

}  // namespace

ExchangeResult exchange(const std::string& path, std::uint32_t cmd, const void* data, std::uint32_t size,
                        int timeout_ms, int stop_fd) {
    int err = 0;
    wl::UniqueFd fd = wlsock::connect_to(path, &err);
    if (!fd.valid()) return failed(-(err ? err : ECONNREFUSED));
    const std::uint32_t id = next_request_id();
    const wlsock::Deadline deadline = wlsock::deadline_in(timeout_ms);
    std::string request = encode_frame(cmd, id, data, size);
    wlsock::IoResult io = wlsock::write_all(fd.get(), request.data(), request.size(), stop_fd, deadline);
    if (io != wlsock::IoResult::Ok) return from_io(io);
    for (;;) {
        FrameHeader header;
        io = wlsock::read_exact(fd.get(), &header, sizeof(header), stop_fd, deadline);
        if (io != wlsock::IoResult::Ok) return from_io(io);
        if (header.magic != kFrameMagic || header.size > kMaxFrameData) return failed(-EPROTO);
        ExchangeResult result;
        result.data.resize(header.size);
        if (header.size > 0) {
            io = wlsock::read_exact(fd.get(), &result.data[0], header.size, stop_fd, deadline);
            if (io != wlsock::IoResult::Ok) return from_io(io);
        }
        if (header.request_id != id) continue;  // not ours: an answer the peer sent twice
        result.cmd = header.cmd;
        return result;
    }
}

}  // namespace kemipc
