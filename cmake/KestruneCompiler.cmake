# The compiler of record and the flags that all code of the project shares.

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  message(FATAL_ERROR
    "g++ ${CMAKE_CXX_COMPILER_VERSION} miscompiles C++20 coroutines without a warning (bodies that never complete, "
    "double frees). Use clang 16: cmake --preset release, or scripts/build, which installs it.")
endif()

set(KESTRUNE_SANITIZE "" CACHE STRING "sanitizers to build with: empty, 'address,undefined' or 'thread'")

add_library(kestrune_flags INTERFACE)
target_compile_options(kestrune_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -fno-omit-frame-pointer)
target_compile_definitions(kestrune_flags INTERFACE
  BOOST_ASIO_SEPARATE_COMPILATION BOOST_ASIO_NO_DEPRECATED BOOST_BEAST_SEPARATE_COMPILATION)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # Locks are annotated (values/Mutex.h). Without the time stamp a precompiled header can be reused from ccache.
  target_compile_options(kestrune_flags INTERFACE
    -Wthread-safety -Werror=thread-safety "SHELL:-Xclang -fno-pch-timestamp")
endif()
if(KESTRUNE_SANITIZE)
  target_compile_options(kestrune_flags INTERFACE -fsanitize=${KESTRUNE_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(kestrune_flags INTERFACE -fsanitize=${KESTRUNE_SANITIZE})
  target_compile_definitions(kestrune_flags INTERFACE KESTRUNE_SANITIZED)
endif()
find_program(KESTRUNE_LLD NAMES ld.lld-16 ld.lld)
if(KESTRUNE_LLD AND NOT APPLE)
  target_link_options(kestrune_flags INTERFACE -fuse-ld=${KESTRUNE_LLD})
endif()

find_program(KESTRUNE_CCACHE ccache)
if(KESTRUNE_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER
    ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
    ${KESTRUNE_CCACHE})
endif()
