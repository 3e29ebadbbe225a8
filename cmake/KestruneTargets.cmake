# One target a folder. A folder includes only what its link line names; scripts/check-layers compares the two.

# Objective-C++ sources are another language, for which there is no precompiled header.
function(kestrune_without_precompiled_header)
  list(FILTER ARGN INCLUDE REGEX "\\.mm$")
  set_source_files_properties(${ARGN} PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
endfunction()

# kestrune_library(NAME SOURCES a.cpp ... LINKS other ...)
function(kestrune_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  kestrune_without_precompiled_header(${ARG_SOURCES})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC kestrune_flags ${ARG_LINKS})
  target_precompile_headers(${name} REUSE_FROM kestrune_pch)
endfunction()

# kestrune_program(NAME SOURCES a.cpp ... LINKS other ...)
function(kestrune_program name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  kestrune_without_precompiled_header(${ARG_SOURCES})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${name} PRIVATE kestrune_flags ${ARG_LINKS})
  target_precompile_headers(${name} REUSE_FROM kestrune_pch)
endfunction()

# The unit tests of the extension and of what it stands on: CI runs them under the sanitizers. Tests of whole programs, and the host's,
# the service's and the companion's own, are left to `scripts/test --sanitize`, because the builds would take twice as long.
add_custom_target(core_tests)
set(KESTRUNE_BESIDE_THE_CORE "/src/(host|service|desktop|companion)(/|$)|/tests/(mount|support)$")

# The tests that need nothing of Linux. Elsewhere they alone are built: the others find files by /proc, or would write into
# the user's own shared directory, because XDG_DATA_HOME moves it on Linux only.
set(KESTRUNE_TESTED_EVERYWHERE "/src/platform/(values|progress|log|tasks|file_provider)$")

# kestrune_test(NAME LABEL unit|process|mount|model|slow SOURCES a.cpp ... LINKS other ... [TIMEOUT seconds])
# Each case runs in a process of its own, so cases may change the environment.
function(kestrune_test name)
  cmake_parse_arguments(ARG "" "LABEL;TIMEOUT" "SOURCES;LINKS" ${ARGN})
  if(NOT KESTRUNE_TESTS)
    return()
  endif()
  if(NOT CMAKE_SYSTEM_NAME STREQUAL "Linux" AND NOT CMAKE_CURRENT_SOURCE_DIR MATCHES "${KESTRUNE_TESTED_EVERYWHERE}")
    return()
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  kestrune_without_precompiled_header(${ARG_SOURCES})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE kestrune_flags ${ARG_LINKS} GTest::gmock GTest::gtest GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE
    KESTRUNE_BIN_DIR="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}" KESTRUNE_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
  target_precompile_headers(${name} REUSE_FROM kestrune_test_pch)
  if(NOT CMAKE_CURRENT_SOURCE_DIR MATCHES "${KESTRUNE_BESIDE_THE_CORE}" AND ARG_LABEL STREQUAL unit)
    add_dependencies(core_tests ${name})
    string(APPEND ARG_LABEL "-core") # one label: a list does not survive gtest_discover_tests
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
    PROPERTIES LABELS ${ARG_LABEL} TIMEOUT ${ARG_TIMEOUT})
endfunction()
