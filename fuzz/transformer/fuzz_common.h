// Shared set-up of the transformer fuzz targets.
#ifndef WL_FUZZ_COMMON_H
#define WL_FUZZ_COMMON_H

#include <cstdlib>

#include "orv_log.h"

// Conversion logs would flood the run; refusals are still exercised.
inline void silenceLogs() { error_output_set_level(0); }

// A broken invariant is a finding.
#define FUZZ_CHECK(condition)           \
    do {                                \
        if (!(condition)) std::abort(); \
    } while (0)

#endif
