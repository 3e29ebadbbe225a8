# Objective-C++ for src/macos: the platform's own where there is an SDK; elsewhere, for the tests alone, GNUstep's Foundation
# with a stand-in for the frameworks that GNUstep does not have (tests/macos/platform).
#
# Memory is managed by hand on both, through the wrappers in src/macos/Retained.h. Off macOS an Objective-C++ source must not
# catch C++ exceptions: the runtime's personality routine knows Objective-C's only. What can throw is called through .cpp files.

set(KESTRUNE_OBJECTIVE_C OFF)
if(APPLE)
  set(KESTRUNE_OBJECTIVE_C ON)
elseif(KESTRUNE_TESTS AND CMAKE_CXX_COMPILER_ID MATCHES "Clang" AND NOT KESTRUNE_SANITIZE STREQUAL "thread")
  # The Objective-C runtime's locks are unknown to ThreadSanitizer.
  set(KESTRUNE_OBJECTIVE_C ON)
  if(NOT CMAKE_OBJCXX_COMPILER)
    set(CMAKE_OBJCXX_COMPILER ${CMAKE_CXX_COMPILER})
  endif()
endif()
if(NOT KESTRUNE_OBJECTIVE_C)
  return()
endif()

enable_language(OBJCXX)
set(CMAKE_OBJCXX_STANDARD 20)
set(CMAKE_OBJCXX_STANDARD_REQUIRED ON)
set(CMAKE_OBJCXX_EXTENSIONS OFF)
set(CMAKE_OBJCXX_COMPILER_LAUNCHER ${CMAKE_CXX_COMPILER_LAUNCHER})
set(CMAKE_OBJCXX_FLAGS_RELEASE "${CMAKE_CXX_FLAGS_RELEASE}")
set(CMAKE_OBJCXX_FLAGS_DEBUG "${CMAKE_CXX_FLAGS_DEBUG}")

# What a target with Objective-C++ sources links.
add_library(kestrune_objective_c INTERFACE)
# Objective-C is an extension of C++: there is no standard to be pedantic about.
target_compile_options(kestrune_objective_c INTERFACE
  $<$<COMPILE_LANGUAGE:OBJCXX>:-fblocks -fno-objc-arc -Wno-pedantic>)
if(APPLE)
  target_link_libraries(kestrune_objective_c INTERFACE
    "-framework Foundation" "-framework FileProvider" "-framework UniformTypeIdentifiers" "-framework AppKit")
  return()
endif()

find_path(KESTRUNE_GNUSTEP_INCLUDE Foundation/Foundation.h PATHS /usr/include/GNUstep REQUIRED)
find_library(KESTRUNE_GNUSTEP_BASE gnustep-base REQUIRED)
find_library(KESTRUNE_BLOCKS BlocksRuntime REQUIRED)
file(GLOB KESTRUNE_GCC_FOLDERS /usr/lib/gcc/*-linux-gnu/*)
find_library(KESTRUNE_OBJC objc PATHS ${KESTRUNE_GCC_FOLDERS} REQUIRED)
find_path(KESTRUNE_OBJC_INCLUDE objc/runtime.h PATHS ${KESTRUNE_GCC_FOLDERS} PATH_SUFFIXES include REQUIRED)
target_compile_options(kestrune_objective_c INTERFACE
  $<$<COMPILE_LANGUAGE:OBJCXX>:-fobjc-runtime=gcc -fexceptions -fconstant-string-class=NSConstantString>)
target_compile_definitions(kestrune_objective_c INTERFACE
  $<$<COMPILE_LANGUAGE:OBJCXX>:GNUSTEP GNUSTEP_BASE_LIBRARY=1 GNU_RUNTIME=1>)
target_include_directories(kestrune_objective_c SYSTEM INTERFACE ${KESTRUNE_GNUSTEP_INCLUDE})
# After all others: gcc's folder also holds gcc's own stddef.h.
target_compile_options(kestrune_objective_c INTERFACE
  "$<$<COMPILE_LANGUAGE:OBJCXX>:SHELL:-idirafter ${KESTRUNE_OBJC_INCLUDE}>")
target_include_directories(kestrune_objective_c INTERFACE ${CMAKE_SOURCE_DIR}/tests/macos/platform)
# The blocks runtime comes first: GNUstep's library has functions of the same names that copy nothing.
target_link_libraries(kestrune_objective_c INTERFACE ${KESTRUNE_BLOCKS} ${KESTRUNE_GNUSTEP_BASE} ${KESTRUNE_OBJC})
