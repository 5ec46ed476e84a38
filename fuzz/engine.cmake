# Fuzz target of the model library's folds: the statements, command lines and
# paths that monitored applications send. A long run, e.g.:
#   fuzz_feature_folds -max_total_time=600 <dir> fuzz/engine/corpus/feature_folds
add_library(baseeng_folds_fuzzed STATIC
  ${CMAKE_SOURCE_DIR}/engine/src/variable_runs.cpp
  ${CMAKE_SOURCE_DIR}/engine/src/feature_memo.cpp
  ${CMAKE_SOURCE_DIR}/engine/src/normalise_path.cpp
  ${CMAKE_SOURCE_DIR}/engine/src/normalise_command.cpp
  ${CMAKE_SOURCE_DIR}/engine/src/normalise_sql.cpp
  ${CMAKE_SOURCE_DIR}/engine/src/sql_skeleton.cpp)
target_include_directories(baseeng_folds_fuzzed PUBLIC ${CMAKE_SOURCE_DIR}/engine/src)
target_compile_options(baseeng_folds_fuzzed PRIVATE -fsanitize=fuzzer-no-link ${WL_FUZZ_FLAGS})
wl_fuzz_target(fuzz_feature_folds ${CMAKE_CURRENT_SOURCE_DIR}/engine/fuzz_feature_folds.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/engine/corpus/feature_folds LIBS baseeng_folds_fuzzed)
