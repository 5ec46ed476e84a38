# Fuzz targets of the collector's parsers: DNS queries as processes send them,
# and recordings read by --replay.
set(WLC_FUZZ_DIR ${CMAKE_CURRENT_SOURCE_DIR}/collector)
add_library(wlc_parsers_fuzzed STATIC
  ${CMAKE_SOURCE_DIR}/collector/src/dns_query.cpp
  ${CMAKE_SOURCE_DIR}/collector/src/record_json.cpp
  ${CMAKE_SOURCE_DIR}/collector/src/event_kind.cpp
  ${CMAKE_SOURCE_DIR}/collector/src/native_encoder.cpp)
target_include_directories(wlc_parsers_fuzzed PUBLIC ${CMAKE_SOURCE_DIR}/collector/src ${CMAKE_SOURCE_DIR}/platform/include)
target_link_libraries(wlc_parsers_fuzzed PUBLIC wl_rapidjson)
target_compile_options(wlc_parsers_fuzzed PRIVATE -fsanitize=fuzzer-no-link ${WL_FUZZ_FLAGS})
foreach(target fuzz_dns_query fuzz_record_json)
  string(REPLACE "fuzz_" "" corpus ${target})
  add_executable(${target} ${WLC_FUZZ_DIR}/${target}.cpp)
  target_link_libraries(${target} PRIVATE wlc_parsers_fuzzed)
  target_compile_options(${target} PRIVATE -fsanitize=fuzzer ${WL_FUZZ_FLAGS})
  target_link_options(${target} PRIVATE -fsanitize=fuzzer ${WL_FUZZ_FLAGS})
  set(work_dir ${CMAKE_CURRENT_BINARY_DIR}/corpus/${corpus})
  file(MAKE_DIRECTORY ${work_dir})
  add_test(NAME ${target}_smoke COMMAND ${target} -runs=2000 -seed=1 ${work_dir} ${WLC_FUZZ_DIR}/corpus/${corpus})
  set_tests_properties(${target}_smoke PROPERTIES TIMEOUT 120)
endforeach()
