# processEvent of the open model library for a filtering model of N features.
find_package(benchmark REQUIRED)
add_executable(engine_lib_bench engine_lib/process_event_bench.cpp ${CMAKE_SOURCE_DIR}/module/libbase/model_records.cpp)
target_include_directories(engine_lib_bench PRIVATE ${CMAKE_SOURCE_DIR}/module/libbase ${CMAKE_SOURCE_DIR}/platform/include)
target_link_libraries(engine_lib_bench PRIVATE baseeng benchmark::benchmark Threads::Threads)
