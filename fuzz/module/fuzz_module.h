// Common ground of the module's fuzz targets: a private install root, the
// model lists and doubles reset between inputs, logs silenced.
#ifndef WL_FUZZ_MODULE_H
#define WL_FUZZ_MODULE_H

#include <cstdlib>
#include <string>

#define FUZZ_CHECK(condition)           \
    do {                                \
        if (!(condition)) std::abort(); \
    } while (0)

namespace fuzz_module {

struct Counts {
    unsigned long requests = 0;
    unsigned long timer_calls = 0;
    unsigned long engine_switches = 0;
};
extern Counts g_counts;

// Once per process: the install root, gates open, logs off.
void setUp();
// Between inputs: empty lists, doubles and catalogue files.
void reset();
// "<root>/var/base/<name>"
std::string baseFile(const char* name);

}  // namespace fuzz_module

#endif
