# Fuzz targets of event translation. A long run, e.g.:
#   fuzz_origin_log -max_total_time=600 -dict=fuzz/transformer/transformer.dict <dir> fuzz/transformer/corpus/origin_log
# The code under test is rebuilt with coverage for the fuzzer.
get_target_property(wl_transformer_sources wl_transformer SOURCES)
list(TRANSFORM wl_transformer_sources PREPEND ${CMAKE_SOURCE_DIR}/module/)
add_library(wl_transformer_fuzzed STATIC ${wl_transformer_sources} ${CMAKE_SOURCE_DIR}/module/libbase/wl_clock.cpp)
target_include_directories(wl_transformer_fuzzed PUBLIC $<TARGET_PROPERTY:wl_transformer,INTERFACE_INCLUDE_DIRECTORIES>)
target_link_libraries(wl_transformer_fuzzed PUBLIC wl_rapidjson kembase)
target_compile_options(wl_transformer_fuzzed PRIVATE -fsanitize=fuzzer-no-link ${WL_FUZZ_FLAGS})

set(WL_FUZZ_DIR ${CMAKE_CURRENT_SOURCE_DIR}/transformer)
foreach(target fuzz_origin_log fuzz_rasp_message fuzz_alarm_list fuzz_native_record)
  string(REPLACE "fuzz_" "" corpus ${target})
  add_executable(${target} ${WL_FUZZ_DIR}/${target}.cpp)
  target_link_libraries(${target} PRIVATE wl_transformer_fuzzed)
  target_compile_options(${target} PRIVATE -fsanitize=fuzzer ${WL_FUZZ_FLAGS})
  target_link_options(${target} PRIVATE -fsanitize=fuzzer ${WL_FUZZ_FLAGS})
  # New inputs go to the build tree; the seeds in the source tree stay as they are.
  set(work_dir ${CMAKE_CURRENT_BINARY_DIR}/corpus/${corpus})
  file(MAKE_DIRECTORY ${work_dir})
  add_test(NAME ${target}_smoke
    COMMAND ${target} -runs=2000 -seed=1 -dict=${WL_FUZZ_DIR}/transformer.dict ${work_dir} ${WL_FUZZ_DIR}/corpus/${corpus})
  set_tests_properties(${target}_smoke PROPERTIES TIMEOUT 120)
endforeach()
