# Everything comes from Debian packages (scripts/setup installs them).
find_package(Threads REQUIRED)

find_path(CJSON_INCLUDE_DIR cjson/cJSON.h REQUIRED)
find_library(CJSON_LIBRARY NAMES cjson REQUIRED)
add_library(wl_cjson INTERFACE)
target_include_directories(wl_cjson INTERFACE ${CJSON_INCLUDE_DIR})
target_link_libraries(wl_cjson INTERFACE ${CJSON_LIBRARY})

find_path(RAPIDJSON_INCLUDE_DIR rapidjson/document.h REQUIRED)
add_library(wl_rapidjson INTERFACE)
target_include_directories(wl_rapidjson INTERFACE ${RAPIDJSON_INCLUDE_DIR})

# GoogleTest from Debian's sources, compiled with this flavour's flags.
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
