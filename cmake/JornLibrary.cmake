# jorn_library(NAME FOLDER src/FOLDER [HEADERS ...] [SOURCES ...] [LINKS ...])
#
# One library of the house. Its public headers are offered as "FOLDER/header.h" through an include
# directory of its own, so a file sees the headers of the libraries that it links and no others:
# an include that the link line doesn't grant doesn't build. The directory holds symbolic links,
# one per header. A library without sources is header-only.
function(jorn_library name)
  cmake_parse_arguments(arg "" "FOLDER" "HEADERS;SOURCES;LINKS" ${ARGN})
  set(room ${CMAKE_BINARY_DIR}/rooms/${name})
  get_filename_component(prefix ${arg_FOLDER} NAME)
  file(MAKE_DIRECTORY ${room}/${prefix})
  foreach(header IN LISTS arg_HEADERS)
    file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${room}/${prefix}/${header} SYMBOLIC)
  endforeach()
  if(arg_SOURCES)
    add_library(${name} STATIC ${arg_SOURCES})
    target_include_directories(${name} PUBLIC ${room})
    target_link_libraries(${name} PRIVATE jorn_daemon_flags PUBLIC ${arg_LINKS})
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${room})
    target_link_libraries(${name} INTERFACE ${arg_LINKS})
  endif()
  list(TRANSFORM arg_HEADERS PREPEND ${prefix}/)
  set_target_properties(${name} PROPERTIES JORN_HEADERS "${arg_HEADERS}")
endfunction()
