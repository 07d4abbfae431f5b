# Libraries that see only what lies below them. A folder's sources see the whole of their own folder;
# who links its library sees its doors, the headers meant for others, and nothing else. The includes
# are the same everywhere ("folder/header.h"): links in the build folder decide what they find.

# folder_links(FOLDER DOORS...): makes the two include folders of a source folder.
function(folder_links folder)
  set(links ${PROJECT_BINARY_DIR}/include/${folder})
  file(REMOVE_RECURSE ${links})
  file(MAKE_DIRECTORY ${links}/inside ${links}/doors/${folder})
  file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${folder} ${links}/inside/${folder} SYMBOLIC)
  foreach(door ${ARGN})
    if(NOT EXISTS ${PROJECT_SOURCE_DIR}/${folder}/${door})
      message(FATAL_ERROR "${folder}/${door} is named as a door but is not there")
    endif()
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${folder}/${door} ${links}/doors/${folder}/${door} SYMBOLIC)
  endforeach()
endfunction()

# folder_library(TARGET TYPE FOLDER folder SOURCES ... USES libraries ...): a library of some of the
# folder's sources, which uses the doors of other folders' libraries.
function(folder_library target type)
  cmake_parse_arguments(arg "" "FOLDER" "SOURCES;USES" ${ARGN})
  list(TRANSFORM arg_SOURCES PREPEND ${PROJECT_SOURCE_DIR}/${arg_FOLDER}/)
  add_library(${target} ${type} ${arg_SOURCES})
  target_include_directories(
    ${target}
    PRIVATE ${PROJECT_BINARY_DIR}/include/${arg_FOLDER}/inside
    INTERFACE ${PROJECT_BINARY_DIR}/include/${arg_FOLDER}/doors)
  target_link_libraries(${target} PRIVATE product_options PUBLIC ${arg_USES})
endfunction()
