// ENGINE_BENCH_ITERATIONS=N runs every case for exactly N iterations, once:
// a fixed amount of work, so that an instruction count (callgrind) of two
// builds of the library is comparable. Without it the library decides.
#ifndef ENGINE_LIB_BENCH_FIXED_ITERATIONS_H
#define ENGINE_LIB_BENCH_FIXED_ITERATIONS_H

#include <cstdlib>

#include <benchmark/benchmark.h>

namespace enginebench {

inline void fixedIterations(benchmark::internal::Benchmark* case_) {
    const char* text = std::getenv("ENGINE_BENCH_ITERATIONS");
    if (text == nullptr) {
        return;
    }
    long long iterations = std::strtoll(text, nullptr, 10);
    if (iterations > 0) {
        case_->Iterations(static_cast<benchmark::IterationCount>(iterations));
    }
}

}  // namespace enginebench

#endif
