# Fuzz targets of the agent's operator side: the control socket's requests,
# and the report envelopes the ledger reads from the module and the spool.
set(WLOPS_FUZZ_DIR ${CMAKE_CURRENT_SOURCE_DIR}/operator)
add_library(wl_operator_fuzzed STATIC
  ${CMAKE_SOURCE_DIR}/agent/wl_agent/control_request.cpp
  ${CMAKE_SOURCE_DIR}/agent/wl_agent/report_ledger.cpp)
target_include_directories(wl_operator_fuzzed PUBLIC ${CMAKE_SOURCE_DIR}/agent/wl_agent)
target_link_libraries(wl_operator_fuzzed PUBLIC wl_cjson)
target_compile_options(wl_operator_fuzzed PRIVATE -fsanitize=fuzzer-no-link -fsanitize=address,undefined
  -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
foreach(target fuzz_control_request fuzz_report_envelope)
  string(REPLACE "fuzz_" "" corpus ${target})
  add_executable(${target} ${WLOPS_FUZZ_DIR}/${target}.cpp)
  target_link_libraries(${target} PRIVATE wl_operator_fuzzed)
  target_compile_options(${target} PRIVATE -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined)
  target_link_options(${target} PRIVATE -fsanitize=fuzzer,address,undefined)
  set(work_dir ${CMAKE_CURRENT_BINARY_DIR}/corpus/${corpus})
  file(MAKE_DIRECTORY ${work_dir})
  add_test(NAME ${target}_smoke COMMAND ${target} -runs=5000 -seed=1 ${work_dir} ${WLOPS_FUZZ_DIR}/corpus/${corpus})
  set_tests_properties(${target}_smoke PROPERTIES TIMEOUT 120)
endforeach()
