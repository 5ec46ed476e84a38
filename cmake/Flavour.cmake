# Compiler flags of the four build flavours. The i386 flavour is the shipping
# build: record layouts are asserted against byte offsets of 32-bit pointers.
# Warnings are errors in every flavour: a new warning is fixed, not lived with.
set(WL_COMMON_WARNINGS -Wall -Wextra -Wno-unused-parameter -Werror)

if(WL_FLAVOUR STREQUAL "i386")
  set(WL_IS_32BIT ON)
  add_compile_options(-m32)
  add_link_options(-m32)
  add_compile_definitions(_GLIBCXX_USE_CXX11_ABI=0)
  set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
  set_property(GLOBAL PROPERTY FIND_LIBRARY_USE_LIB32_PATHS ON)
  set_property(GLOBAL PROPERTY FIND_LIBRARY_USE_LIB64_PATHS OFF)
  set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig)
elseif(WL_FLAVOUR STREQUAL "asan")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(WL_FLAVOUR STREQUAL "tsan")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT WL_FLAVOUR STREQUAL "native")
  message(FATAL_ERROR "Unknown WL_FLAVOUR '${WL_FLAVOUR}': use i386, native, asan or tsan")
endif()

add_compile_options(${WL_COMMON_WARNINGS})
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()
