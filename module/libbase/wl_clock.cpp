#include "wl_clock.h"

#include <unistd.h>

namespace {
void real_usleep(unsigned int microseconds) { ::usleep(microseconds); }
void real_sleep(unsigned int seconds) { ::sleep(seconds); }
}  // namespace

wl_clock_ops g_wl_clock = {real_usleep, real_sleep, ::time};

void wl_clock_reset() { g_wl_clock = {real_usleep, real_sleep, ::time}; }
