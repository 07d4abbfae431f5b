# The header-only libraries of the host tool. They are the host's packages, and as good for the target;
# but the folder that holds them holds the host's C library, too, so that a cross compiler must not see
# it. Links in the build folder show it just these.
set(links ${PROJECT_BINARY_DIR}/include/host_headers)
file(MAKE_DIRECTORY ${links})
foreach(folder CLI fmt nlohmann)
  if(NOT EXISTS /usr/include/${folder})
    message(FATAL_ERROR
      "/usr/include/${folder} is missing: install libcli11-dev libfmt-dev nlohmann-json3-dev")
  endif()
  file(CREATE_LINK /usr/include/${folder} ${links}/${folder} SYMBOLIC)
endforeach()

# What they would compile into each source, compiled once.
add_library(host_functions STATIC cmake/host_functions.cpp)
target_include_directories(host_functions SYSTEM PRIVATE ${links})

add_library(host_headers INTERFACE)
target_include_directories(host_headers SYSTEM INTERFACE ${links})
target_link_libraries(host_headers INTERFACE host_functions)
