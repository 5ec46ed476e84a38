# Fuzz target of the forwarder's parsers: the spool's state, a sink's
# cursor, the upload manifest's entries and the envelope's route.
set(WLF_FUZZ_DIR ${CMAKE_CURRENT_SOURCE_DIR}/forwarder)
set(WLF_FUZZ_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
add_library(wlf_parsers_fuzzed STATIC
  ${CMAKE_SOURCE_DIR}/agent/forwarder/spool/spool_state.cpp
  ${CMAKE_SOURCE_DIR}/agent/forwarder/envelope.cpp
  ${CMAKE_SOURCE_DIR}/platform/base/atomic_file.cpp
  ${CMAKE_SOURCE_DIR}/platform/base/dirutils.cpp)
target_include_directories(wlf_parsers_fuzzed PUBLIC ${CMAKE_SOURCE_DIR}/agent/forwarder
  ${CMAKE_SOURCE_DIR}/agent/forwarder/spool ${CMAKE_SOURCE_DIR}/platform/include ${CMAKE_SOURCE_DIR}/platform/base)
target_link_libraries(wlf_parsers_fuzzed PUBLIC wl_cjson)
target_compile_options(wlf_parsers_fuzzed PRIVATE -fsanitize=fuzzer-no-link ${WLF_FUZZ_FLAGS})
add_executable(fuzz_spool_text ${WLF_FUZZ_DIR}/fuzz_spool_text.cpp)
target_link_libraries(fuzz_spool_text PRIVATE wlf_parsers_fuzzed)
target_compile_options(fuzz_spool_text PRIVATE -fsanitize=fuzzer ${WLF_FUZZ_FLAGS})
target_link_options(fuzz_spool_text PRIVATE -fsanitize=fuzzer ${WLF_FUZZ_FLAGS})
set(work_dir ${CMAKE_CURRENT_BINARY_DIR}/corpus/spool_text)
file(MAKE_DIRECTORY ${work_dir})
add_test(NAME fuzz_spool_text_smoke COMMAND fuzz_spool_text -runs=2000 -seed=1 ${work_dir} ${WLF_FUZZ_DIR}/corpus/spool_text)
set_tests_properties(fuzz_spool_text_smoke PROPERTIES TIMEOUT 120)
