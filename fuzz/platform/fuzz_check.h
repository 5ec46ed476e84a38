// A broken invariant is a finding.
#ifndef WL_FUZZ_CHECK_H
#define WL_FUZZ_CHECK_H

#include <cstdlib>

#define FUZZ_CHECK(condition)           \
    do {                                \
        if (!(condition)) std::abort(); \
    } while (0)

#endif
