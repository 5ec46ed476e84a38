# Fuzz targets of the platform libraries' stream parsers, rebuilt from their
# sources with coverage: the IPC frame reader, the task socket's request
# line, the telemetry line assembler and its pid check, and the collector
# client's reader.
set(WL_PLATFORM_SRC ${CMAKE_SOURCE_DIR}/platform)
set(WL_PLATFORM_FUZZ_DIR ${CMAKE_CURRENT_SOURCE_DIR}/platform)

# name: sources, include dir
set(ipc_frame_sources ${WL_PLATFORM_SRC}/ipc/frame.cpp)
set(ipc_frame_include ${WL_PLATFORM_SRC}/ipc ${WL_PLATFORM_SRC}/internal)
set(task_request_sources ${WL_PLATFORM_SRC}/task_push/request_line.cpp)
set(task_request_include ${WL_PLATFORM_SRC}/task_push ${WL_PLATFORM_SRC}/internal)
set(telemetry_lines_sources ${WL_PLATFORM_SRC}/orv_rasp/line_assembler.cpp)
set(telemetry_lines_include ${WL_PLATFORM_SRC}/orv_rasp ${WL_PLATFORM_SRC}/internal)
set(line_pid_sources ${WL_PLATFORM_SRC}/orv_rasp/line_pid.cpp)
set(line_pid_include ${WL_PLATFORM_SRC}/orv_rasp)
set(vrccl_stream_sources ${WL_PLATFORM_SRC}/vrccl/collector_connection.cpp ${WL_PLATFORM_SRC}/vrccl/frame_io.cpp
    ${WL_PLATFORM_SRC}/vrccl/record_delivery.cpp)
set(vrccl_stream_include ${WL_PLATFORM_SRC}/vrccl ${WL_PLATFORM_SRC}/internal)

foreach(name ipc_frame task_request telemetry_lines line_pid vrccl_stream)
  add_library(wl_${name}_fuzzed STATIC ${${name}_sources})
  target_include_directories(wl_${name}_fuzzed PUBLIC ${${name}_include} ${WL_PLATFORM_SRC}/include ${WL_PLATFORM_FUZZ_DIR})
  target_link_libraries(wl_${name}_fuzzed PUBLIC kembase Threads::Threads ${CMAKE_DL_LIBS})
  target_compile_options(wl_${name}_fuzzed PRIVATE -fsanitize=fuzzer-no-link ${WL_FUZZ_FLAGS})
  wl_fuzz_target(fuzz_${name} ${WL_PLATFORM_FUZZ_DIR}/fuzz_${name}.cpp ${WL_PLATFORM_FUZZ_DIR}/corpus/${name}
    LIBS wl_${name}_fuzzed)
endforeach()
target_link_libraries(wl_line_pid_fuzzed PUBLIC wl_rapidjson)
# The client finds the receiver in the process by name.
set_target_properties(fuzz_vrccl_stream PROPERTIES ENABLE_EXPORTS ON)
set_tests_properties(fuzz_vrccl_stream_smoke PROPERTIES TIMEOUT 300)
