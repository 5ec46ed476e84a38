// The library's exported entry points. The server lives as long as the
// library: unloading stops its thread and removes the socket.
#pragma GCC visibility push(default)
#include "orv_rasp.h"
#pragma GCC visibility pop

#include <exception>

#include "telemetry_server.h"
#include "text_out.h"

namespace {
orv_rasp::TelemetryServer g_server;
}

extern "C" {

int orv_rasp_reg_tele_callback(orv_rasp_tele_fn callback, void* user) {
    return g_server.registerCallback(callback, user);
}

int orv_rasp_counters_json(char* out, int size) {
    try {
        return wlsock::text_out(g_server.countersJson(), out, size);
    } catch (const std::exception&) {
        return -1;  // no memory for the text
    }
}

}  // extern "C"
