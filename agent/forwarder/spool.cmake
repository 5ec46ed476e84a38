# The spool's files, shared by wl-agent (which writes them, 32-bit in the
# shipping flavour) and wl-forward (which reads them). WL_SPOOL_PLATFORM
# names what provides file_write_atomic and dirutils_mkdir.
if(NOT TARGET wl_spool)
  set(WL_SPOOL_SOURCE_DIR ${CMAKE_CURRENT_LIST_DIR})
  add_library(wl_spool STATIC
    ${WL_SPOOL_SOURCE_DIR}/spool/spool_state.cpp
    ${WL_SPOOL_SOURCE_DIR}/spool/spool_writer.cpp
    ${WL_SPOOL_SOURCE_DIR}/spool/spool_reader.cpp)
  target_include_directories(wl_spool PUBLIC ${WL_SPOOL_SOURCE_DIR}/spool ${CMAKE_SOURCE_DIR}/platform/include
    PRIVATE ${CMAKE_SOURCE_DIR}/platform/base)
  # Inode numbers and offsets are 64-bit on a 32-bit build too.
  target_compile_definitions(wl_spool PRIVATE _FILE_OFFSET_BITS=64)
  target_link_libraries(wl_spool PUBLIC ${WL_SPOOL_PLATFORM} wl_cjson)
endif()
