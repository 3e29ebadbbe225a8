# One target a folder. A folder includes only what its link line names; scripts/check-layers compares the two.

# kestrune_library(NAME SOURCES a.cpp ... LINKS other ...)
function(kestrune_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC kestrune_flags ${ARG_LINKS})
  target_precompile_headers(${name} REUSE_FROM kestrune_pch)
endfunction()

# kestrune_program(NAME SOURCES a.cpp ... LINKS other ...)
function(kestrune_program name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${name} PRIVATE kestrune_flags ${ARG_LINKS})
  target_precompile_headers(${name} REUSE_FROM kestrune_pch)
endfunction()

# kestrune_test(NAME LABEL unit|process|mount|model|slow SOURCES a.cpp ... LINKS other ... [TIMEOUT seconds])
# Each case runs in a process of its own, so cases may change the environment.
function(kestrune_test name)
  cmake_parse_arguments(ARG "" "LABEL;TIMEOUT" "SOURCES;LINKS" ${ARGN})
  if(NOT KESTRUNE_TESTS)
    return()
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE kestrune_flags ${ARG_LINKS} GTest::gmock GTest::gtest GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE
    KESTRUNE_BIN_DIR="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}" KESTRUNE_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
  target_precompile_headers(${name} REUSE_FROM kestrune_pch)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
    PROPERTIES LABELS ${ARG_LABEL} TIMEOUT ${ARG_TIMEOUT})
endfunction()
