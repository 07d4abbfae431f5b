# GoogleTest for the tests of all folders, and how a test program is made of it.
if(CMAKE_CROSSCOMPILING)
  # The packaged library is for the host; its sources serve the target.
  set(BUILD_GMOCK OFF)
  set(INSTALL_GTEST OFF)
  add_subdirectory(/usr/src/googletest googletest EXCLUDE_FROM_ALL SYSTEM)
  target_compile_options(gtest PRIVATE -O0)
else()
  find_package(GTest REQUIRED)
endif()

add_library(test_options INTERFACE)
target_link_libraries(test_options INTERFACE whole_project GTest::gtest_main)
# Clang means signs, too, by -Wconversion, which g++ does not.
target_compile_options(test_options INTERFACE -Wno-sign-conversion)

# What the sources of most tests are compiled with: no optimisation, which took most of the build of
# so many of them, and no checks of their own. What they test is optimised, as it ships, and checked.
add_library(short_test_options INTERFACE)
target_link_libraries(short_test_options INTERFACE test_options)
target_compile_options(short_test_options INTERFACE -O0 -fno-sanitize=undefined)

# The headers that nearly every test source includes, read once; the same with those of documents, for
# the tests of the host tool. (They are still to be included where they are used: scripts/style looks
# without this.)
add_library(test_headers OBJECT ${PROJECT_SOURCE_DIR}/cmake/test_headers.cpp)
target_link_libraries(test_headers PRIVATE short_test_options)
target_precompile_headers(test_headers PRIVATE
  <gtest/gtest.h> <algorithm> <filesystem> <functional> <map> <memory> <set> <string> <vector>)
add_library(image_test_headers OBJECT ${PROJECT_SOURCE_DIR}/cmake/test_headers.cpp)
target_link_libraries(image_test_headers PRIVATE short_test_options host_headers)
target_precompile_headers(image_test_headers PRIVATE
  <gtest/gtest.h> <algorithm> <filesystem> <functional> <map> <memory> <set> <string> <vector>
  <nlohmann/json.hpp> ${PROJECT_SOURCE_DIR}/cmake/host_templates.h)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(image_test_headers PRIVATE -fpch-instantiate-templates)
endif()

# program_options(TARGET): how a program that is not shipped is linked.
function(program_options target)
  if(ZANTROLUME_LTO)
    target_link_options(${target} PRIVATE -fno-lto)
  endif()
  if(CMAKE_CROSSCOMPILING)
    # GoogleTest's result streaming, which nothing uses, makes static links warn of name services.
    target_link_options(${target} PRIVATE LINKER:--no-warnings)
  endif()
endfunction()

# test_program(TARGET [LONG] SHARDS number [HEADERS target] [RARE tests] SOURCES ... USES libraries ...):
# a program of GoogleTest tests; its precompiled headers are those of test_headers or of another target.
# The RARE ones, a filter, run as a test of their own, which scripts/test wants --all for. It runs whole, in so many processes side by side: a process for each test took most of the
# time that the suite ran, under emulation above all. scripts/test --quick leaves out the LONG ones,
# which compute so much that natively they are optimised themselves.
function(test_program target)
  cmake_parse_arguments(arg "LONG" "SHARDS;HEADERS;RARE" "SOURCES;USES" ${ARGN})
  add_executable(${target} ${arg_SOURCES})
  set(environment GTEST_COLOR=no)
  if(arg_LONG AND (NOT CMAKE_CROSSCOMPILING OR target STREQUAL "model_tests"))
    target_link_libraries(${target} PRIVATE ${arg_USES} test_options)
    # Their many allocations cost a third less with a small quarantine and short stacks.
    list(APPEND environment ASAN_OPTIONS=quarantine_size_mb=8:malloc_context_size=4)
  else()
    target_link_libraries(${target} PRIVATE ${arg_USES} short_test_options)
    if(NOT arg_HEADERS)
      set(arg_HEADERS test_headers)
    endif()
    target_precompile_headers(${target} REUSE_FROM ${arg_HEADERS})
    if(arg_HEADERS STREQUAL "image_test_headers")
      # Whole flashes that are kept when they are given back would be most of its memory.
      list(APPEND environment ASAN_OPTIONS=quarantine_size_mb=8:malloc_context_size=4)
    endif()
  endif()
  program_options(${target})
  if(arg_RARE)
    add_test(NAME ${target}.rare COMMAND ${target})
    set_tests_properties(${target}.rare PROPERTIES
      TIMEOUT 1800
      LABELS rare
      ENVIRONMENT "GTEST_FILTER=${arg_RARE};${environment}")
    list(APPEND environment "GTEST_FILTER=-${arg_RARE}")
  endif()
  math(EXPR last "${arg_SHARDS} - 1")
  foreach(shard RANGE ${last})
    math(EXPR number "${shard} + 1")
    set(name ${target}.${number}_of_${arg_SHARDS})
    add_test(NAME ${name} COMMAND ${target})
    set_tests_properties(${name} PROPERTIES
      TIMEOUT 600
      COST ${arg_SHARDS}  # the longest begin first
      LABELS "$<$<BOOL:${arg_LONG}>:long>"
      ENVIRONMENT "GTEST_TOTAL_SHARDS=${arg_SHARDS};GTEST_SHARD_INDEX=${shard};${environment}")
  endforeach()
endfunction()
