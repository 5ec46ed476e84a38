# The action collector measured as it runs: its CPU while unwatched processes
# are busy, the latency from a watched process's syscall to the module's entry
# point, and what is lost at 10,000 events a second. Needs root.
add_executable(collector_bench collector/collector_bench.cpp)
target_link_libraries(collector_bench PRIVATE vrccl_ori kembase Threads::Threads)
target_include_directories(collector_bench PRIVATE ${CMAKE_SOURCE_DIR}/platform/include)
set_target_properties(collector_bench PROPERTIES ENABLE_EXPORTS ON)
add_dependencies(collector_bench wl-collector)
