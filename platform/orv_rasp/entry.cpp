// The library's exported entry point. The server lives as long as the
// library: unloading stops its thread and removes the socket.
#include "orv_rasp.h"
#include "telemetry_server.h"

namespace {
orv_rasp::TelemetryServer g_server;
}

extern "C" __attribute__((visibility("default"))) int orv_rasp_reg_tele_callback(orv_rasp_tele_fn callback,
                                                                                  void* user) {
    return g_server.registerCallback(callback, user);
}
