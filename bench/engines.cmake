# The engines' idle cost with the real pauses, and the worker's cost per event
# apart from its pause, over the recording fake of the model library.
find_package(benchmark REQUIRED)
add_executable(engines_bench
  engines/engines_bench.cpp
  ${CMAKE_SOURCE_DIR}/tests/engines/doubles/recorders.cpp
  ${CMAKE_SOURCE_DIR}/tests/engines/doubles/register_double.cpp)
target_include_directories(engines_bench PRIVATE ${CMAKE_SOURCE_DIR}/tests/engines/doubles)
target_link_libraries(engines_bench PRIVATE wl_engines wl_transformer wl_common wl_fake_model_library
  wl_fake_report_upload wl_fake_model_management wl_call_log kembase benchmark::benchmark_main)
