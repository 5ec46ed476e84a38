// Sleeping and the wall clock, behind one seam: the shipping build sleeps as
// told, tests replace the functions so that 3-second and 60-second cycles
// pass without waiting.
#ifndef WL_CLOCK_H
#define WL_CLOCK_H

#include <ctime>

struct wl_clock_ops {
    void (*usleep_fn)(unsigned int microseconds);
    void (*sleep_fn)(unsigned int seconds);
    time_t (*time_fn)(time_t* out);
};

extern wl_clock_ops g_wl_clock;

inline void wl_usleep(unsigned int microseconds) { g_wl_clock.usleep_fn(microseconds); }
inline void wl_sleep(unsigned int seconds) { g_wl_clock.sleep_fn(seconds); }
inline time_t wl_time(time_t* out) { return g_wl_clock.time_fn(out); }

// Restores the real functions.
void wl_clock_reset();

#endif
