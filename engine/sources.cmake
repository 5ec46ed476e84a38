# libbaseeng: the open behaviour-model library behind BaseFactory and
# RaspFactory. Only the two factory functions are exported (baseeng.map).
add_library(baseeng SHARED
  src/wide_text.cpp
  src/variable_runs.cpp
  src/feature_memo.cpp
  src/normalise_path.cpp
  src/normalise_command.cpp
  src/normalise_sql.cpp
  src/sql_skeleton.cpp
  src/feature_kinds.cpp
  src/address_names.cpp
  src/learning_progress.cpp
  src/alarm_repeats.cpp
  src/engine_settings.cpp
  src/behaviour_model.cpp
  src/model_book.cpp
  src/model_files.cpp
  src/origin_log_file.cpp
  src/engine_common.cpp
  src/base_event_view.cpp
  src/rasp_event_view.cpp
  src/base_model_engine.cpp
  src/rasp_model_engine.cpp
  src/factories.cpp)
target_include_directories(baseeng PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR}/platform/include)
# The record and interface headers shared with the module (module/CMakeLists.txt).
target_link_libraries(baseeng PUBLIC wl::model_library_headers)
target_link_libraries(baseeng PRIVATE wl_rapidjson Threads::Threads)
target_link_libraries(baseeng PRIVATE kembase)
target_compile_definitions(baseeng PRIVATE WL_ENGINE_HAS_LOG=1)
target_link_options(baseeng PRIVATE -Wl,--version-script=${CMAKE_CURRENT_SOURCE_DIR}/baseeng.map)
# Sanitizer runtimes resolve in the executable, so only plain builds can
# insist that the library names everything it uses.
if(WL_FLAVOUR STREQUAL "i386" OR WL_FLAVOUR STREQUAL "native")
  target_link_options(baseeng PRIVATE -Wl,--no-undefined)
endif()
set_target_properties(baseeng PROPERTIES
  OUTPUT_NAME baseeng
  LIBRARY_OUTPUT_DIRECTORY ${WL_STAGE_DIR}/lib
  LINK_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/baseeng.map)
