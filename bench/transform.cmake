# Cost of each conversion into an event record, next to the floor of
# clearing and copying one 66,732-byte record.
find_package(benchmark REQUIRED)
add_executable(transform_bench transform_bench.cpp)
target_link_libraries(transform_bench PRIVATE wl_transformer wl_common kembase benchmark::benchmark_main)
