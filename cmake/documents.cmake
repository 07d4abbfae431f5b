# What is made for the shells and for man, and where everything is installed.
include(GNUInstallDirs)

install(TARGETS zantrolume RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS flashfs-image RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The manual pages. A build without their translator is as good a build, without pages.
find_program(SCDOC scdoc)
if(SCDOC)
  set(pages ${PROJECT_BINARY_DIR}/man)
  file(MAKE_DIRECTORY ${pages})
  foreach(page flashfs-image.1 zantrolume.8)
    set(source ${PROJECT_SOURCE_DIR}/docs/man/${page}.scd)
    add_custom_command(
      OUTPUT ${pages}/${page}
      COMMAND ${SCDOC} < ${source} > ${pages}/${page}
      DEPENDS ${source}
      VERBATIM)
    list(APPEND page_files ${pages}/${page})
    string(REGEX MATCH "[0-9]$" section ${page})
    install(FILES ${pages}/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endforeach()
  add_custom_target(manual_pages ALL DEPENDS ${page_files})
else()
  message(STATUS "No manual pages: install scdoc")
endif()

# The completions, told by the program itself; the target has no use for them.
if(NOT CMAKE_CROSSCOMPILING)
  set(completions ${PROJECT_BINARY_DIR}/completions)
  file(MAKE_DIRECTORY ${completions})
  foreach(shell bash zsh fish)
    set(made ${completions}/flashfs-image.${shell})
    add_custom_command(
      OUTPUT ${made}
      COMMAND flashfs-image --completions ${shell} > ${made}
      DEPENDS flashfs-image
      VERBATIM)
    list(APPEND completion_files ${made})
  endforeach()
  add_custom_target(completions ALL DEPENDS ${completion_files})
  install(FILES ${completions}/flashfs-image.bash RENAME flashfs-image
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES ${completions}/flashfs-image.zsh RENAME _flashfs-image
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
  install(FILES ${completions}/flashfs-image.fish
    DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
endif()
