# Cost of the model-management passes that touch the whole host: the walk of
# /proc, a tracking pass over many models, the open-port report's enrichment.
find_package(benchmark REQUIRED)
add_executable(models_bench
  models_bench.cpp
  ${CMAKE_SOURCE_DIR}/tests/models/doubles/agent_doubles.cpp
  ${CMAKE_SOURCE_DIR}/tests/models/doubles/model_library_double.cpp
  ${CMAKE_SOURCE_DIR}/tests/models/doubles/model_lists_double.cpp)
target_include_directories(models_bench PRIVATE ${CMAKE_SOURCE_DIR}/tests/models)
target_link_libraries(models_bench PRIVATE wl_models wl_common wl_fake_model_library wl_fake_report_upload
  wl_agent_symbols_core wl_call_log kembase benchmark::benchmark_main ${CMAKE_DL_LIBS})
