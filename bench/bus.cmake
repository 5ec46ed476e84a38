# Cost of an event on the bus, against the floor of copying the record, and
# the publish rate the bus sustains up to its queue bound.
find_package(benchmark REQUIRED)
add_executable(bus_bench bus_bench.cpp)
target_link_libraries(bus_bench PRIVATE wl_bus wl_transformer wl_common kembase benchmark::benchmark ${CMAKE_DL_LIBS})
target_compile_definitions(bus_bench PRIVATE
  WL_BENCH_STAGE_LIB="${WL_STAGE_DIR}/lib"
  WL_BENCH_PLUGIN_DIR="${WL_PLUGIN_DIR}")
add_dependencies(bus_bench tulmb)
