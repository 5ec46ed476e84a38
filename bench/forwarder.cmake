# The report spool and forwarding: what an upload of the module costs with
# and without a sync to disk, how fast a sink's reader and the file sink go.
find_package(benchmark REQUIRED)
add_executable(forward_bench forwarder/forward_bench.cpp)
target_link_libraries(forward_bench PRIVATE wlf_core benchmark::benchmark_main)
