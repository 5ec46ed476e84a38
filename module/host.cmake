# Module host: entry and work thread, configuration, debug IPC, task
# dispatch and the upload to the manager.
wl_module_area(wl_host
  whitelist.cpp
  whitelist_startup.cpp
  whitelist_loop.cpp
  whitelist_impl.cpp
  whitelist_upload.cpp
  whitelist_dbg.cpp
  config.cpp
  module_switch.cpp)
target_link_libraries(wl_host PUBLIC ${CMAKE_DL_LIBS})
