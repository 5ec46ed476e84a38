# Fuzz targets of the module's text entry points: manager commands through
# the task-push dispatcher, debug commands, the config centre's reply, the
# catalogue file and the asset lists of the open-port report. They run the
# model-management code itself, with the doubles the model tests use for the
# engines and the agent (tests/models/doubles, with the shared fakes they
# lean on) and module_fakes.cpp for the rest, as tests/models does.
set(WL_MODULE_FUZZ_DIR ${CMAKE_CURRENT_SOURCE_DIR}/module)
set(WL_MODELS_DOUBLES ${CMAKE_SOURCE_DIR}/tests/models/doubles)
get_target_property(wl_models_sources wl_models SOURCES)
get_target_property(wl_common_sources wl_common SOURCES)
set(wl_module_fuzzed_sources ${wl_models_sources} ${wl_common_sources}
    whitelist_impl.cpp whitelist_dbg.cpp config.cpp)
list(TRANSFORM wl_module_fuzzed_sources PREPEND ${CMAKE_SOURCE_DIR}/module/)
add_library(wl_module_fuzzed STATIC ${wl_module_fuzzed_sources}
  ${WL_MODELS_DOUBLES}/agent_doubles.cpp
  ${WL_MODELS_DOUBLES}/model_library_double.cpp
  ${WL_MODELS_DOUBLES}/model_lists_double.cpp
  ${WL_MODULE_FUZZ_DIR}/module_fakes.cpp
  ${WL_MODULE_FUZZ_DIR}/fuzz_module.cpp)
target_include_directories(wl_module_fuzzed PUBLIC
  $<TARGET_PROPERTY:wl_models,INTERFACE_INCLUDE_DIRECTORIES> ${WL_MODELS_DOUBLES} ${WL_MODULE_FUZZ_DIR})
target_link_libraries(wl_module_fuzzed PUBLIC wl_fake_model_library wl_fake_report_upload wl_agent_symbols_core
  wl_call_log wl_cjson wl_rapidjson kembase Threads::Threads ${CMAKE_DL_LIBS})
target_compile_options(wl_module_fuzzed PRIVATE -fsanitize=fuzzer-no-link ${WL_FUZZ_FLAGS})

foreach(name task_push dbg_ipc cfg_reply catalogue openport_assets)
  wl_fuzz_target(fuzz_${name} ${WL_MODULE_FUZZ_DIR}/fuzz_${name}.cpp ${WL_MODULE_FUZZ_DIR}/corpus/${name}
    LIBS wl_module_fuzzed)
  # The module looks the agent's symbols up in the process.
  set_target_properties(fuzz_${name} PROPERTIES ENABLE_EXPORTS ON)
endforeach()
