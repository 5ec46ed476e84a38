#include "kem_status.h"

#include <atomic>

namespace {
std::atomic<int> g_kemStatus{1};
}

extern "C" int get_kem_status(void) { return g_kemStatus.load(); }

extern "C" void set_kem_status(int value) { g_kemStatus.store(value); }
