# What `cmake --install` brings, in two components that are two packages as well: JORN (jorn) and
# WATCH (jorn-watch). The gate's program and the page's files are in the programs that use them.
#
# jorn_install(PROGRAM COMPONENT DIRECTORY [PAGES ...] [EXAMPLES ...])
#
# The program goes into DIRECTORY, with bash's completion of it, manual pages out of docs/man, which
# are then also in BUILD/man, and files out of examples.
include(GNUInstallDirs)

function(jorn_install program component directory)
  cmake_parse_arguments(arg "" "" "PAGES;EXAMPLES" ${ARGN})
  install(TARGETS ${program} DESTINATION ${directory} COMPONENT ${component})
  install(FILES ${CMAKE_SOURCE_DIR}/shared/completion.bash RENAME ${program}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT ${component})
  foreach(page IN LISTS arg_PAGES)
    configure_file(${CMAKE_SOURCE_DIR}/docs/man/${page} ${CMAKE_BINARY_DIR}/man/${page} @ONLY)
    string(REGEX MATCH "[0-9]$" section ${page})
    install(FILES ${CMAKE_BINARY_DIR}/man/${page}
            DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
  endforeach()
  set(package jorn)
  if(component STREQUAL "WATCH")
    set(package jorn-watch)
  endif()
  list(TRANSFORM arg_EXAMPLES PREPEND ${CMAKE_SOURCE_DIR}/examples/)
  if(arg_EXAMPLES)
    install(FILES ${arg_EXAMPLES}
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}/examples COMPONENT ${component})
  endif()
endfunction()
