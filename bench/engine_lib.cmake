# processEvent of the open model library: per kind of event against a
# filtering model of N features, and over a web shop's mixed traffic.
find_package(benchmark REQUIRED)
add_executable(engine_lib_bench engine_lib/process_event_bench.cpp engine_lib/shop_stream_bench.cpp)
target_include_directories(engine_lib_bench PRIVATE ${CMAKE_SOURCE_DIR}/module/libbase ${CMAKE_SOURCE_DIR}/platform/include
                           ${CMAKE_SOURCE_DIR}/tests/engine_lib ${CMAKE_SOURCE_DIR}/tests/support)
target_link_libraries(engine_lib_bench PRIVATE baseeng wl_transformer wl_common kembase benchmark::benchmark Threads::Threads)
