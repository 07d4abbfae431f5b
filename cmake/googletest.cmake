# GoogleTest for the tests of all folders.
include(GoogleTest)

if(CMAKE_CROSSCOMPILING)
  # The packaged library is for the host; its sources serve the target.
  set(BUILD_GMOCK OFF)
  set(INSTALL_GTEST OFF)
  add_subdirectory(/usr/src/googletest googletest EXCLUDE_FROM_ALL SYSTEM)
else()
  find_package(GTest REQUIRED)
endif()
