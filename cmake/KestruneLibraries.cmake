# Third-party libraries, each under one name. All are system headers: their warnings are not ours.

# What the extension and the application around it stand on; vcpkg.json has the same list for macOS.
find_package(Threads REQUIRED)
find_package(Boost 1.81 REQUIRED COMPONENTS url)
find_package(CURL 7.88 REQUIRED)
find_package(simdjson REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(CLI11 REQUIRED)
if(KESTRUNE_TESTS OR NOT DEFINED KESTRUNE_TESTS)
  find_package(GTest REQUIRED)
endif()
# The host, the service, the program, the tests of all of them, and the journal.
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
  find_package(PkgConfig REQUIRED)
  find_package(OpenSSL REQUIRED)
  find_package(ZLIB REQUIRED)
  find_package(fmt REQUIRED)
  find_package(SQLiteCpp REQUIRED)
  pkg_check_modules(FUSE3 REQUIRED IMPORTED_TARGET fuse3)
  find_package(CapnProto 0.9 REQUIRED)
  pkg_check_modules(SECCOMP REQUIRED IMPORTED_TARGET libseccomp)
  pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
endif()

# Asio's and Beast's non-template code, compiled once.
add_library(kestrune_asio STATIC ${CMAKE_SOURCE_DIR}/cmake/AsioSources.cpp)
target_link_libraries(kestrune_asio PUBLIC kestrune_flags Boost::headers Threads::Threads)

# The headers that nearly every source includes, compiled once.
add_library(kestrune_pch OBJECT ${CMAKE_SOURCE_DIR}/cmake/Precompiled.cpp)
target_link_libraries(kestrune_pch PUBLIC kestrune_flags Boost::headers nlohmann_json::nlohmann_json)
target_precompile_headers(kestrune_pch PRIVATE ${CMAKE_SOURCE_DIR}/cmake/Precompiled.h)
if(KESTRUNE_TESTS OR NOT DEFINED KESTRUNE_TESTS)
  add_library(kestrune_test_pch OBJECT ${CMAKE_SOURCE_DIR}/cmake/Precompiled.cpp)
  target_link_libraries(kestrune_test_pch PUBLIC kestrune_pch GTest::gmock GTest::gtest)
  target_precompile_headers(kestrune_test_pch PRIVATE ${CMAKE_SOURCE_DIR}/cmake/PrecompiledTests.h)
endif()
