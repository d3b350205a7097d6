# jorn_library(NAME FOLDER [HEADERS ...] [PRIVATE_HEADERS ...] [SOURCES ...]
#              [LINKS ...] [PRIVATE_LINKS ...])
#
# One library of the house: the folder FOLDER, whole, or a part of it. Its HEADERS are offered as
# "FOLDER/header.h" through an include directory of its own, so a file sees the headers of the
# libraries that it links and no others: an include that the link line doesn't grant doesn't build.
# LINKS are the libraries whose headers its own HEADERS include; a user gets them, too. What only
# its sources need are PRIVATE_LINKS, and PRIVATE_HEADERS are for its sources alone. It is compiled
# with JORN_LIBRARY_FLAGS, an interface library that the program's topmost folder names, and where it
# has them with the headers of JORN_PRECOMPILED (cmake/Precompiled.cmake).
#
# Where all is built again and again (the presets of scripts/test), its sources are compiled in one
# piece (CMAKE_UNITY_BUILD): headers are read and templates made once for a library. So what its
# sources keep for themselves, in unnamed namespaces, has names that are unique in it. An include that
# is missing shows in any other build, and clang-tidy finds it, for it looks at each source alone.
#
# The directory holds symbolic links, one per header, made afresh with every configuration: a header
# that left the list is gone. A library without sources is header-only.
function(jorn_library name folder)
  cmake_parse_arguments(arg "" "" "HEADERS;PRIVATE_HEADERS;SOURCES;LINKS;PRIVATE_LINKS" ${ARGN})
  set(room ${CMAKE_BINARY_DIR}/rooms/${name})
  set(back_room ${CMAKE_BINARY_DIR}/rooms/${name}.private)
  file(REMOVE_RECURSE ${room} ${back_room})
  _jorn_offer(${room} ${folder} ${arg_HEADERS})
  if(arg_SOURCES)
    add_library(${name} STATIC ${arg_SOURCES})
    target_include_directories(${name} PUBLIC ${room})
    target_link_libraries(${name} PRIVATE ${JORN_LIBRARY_FLAGS} ${arg_PRIVATE_LINKS} PUBLIC ${arg_LINKS})
    if(arg_PRIVATE_HEADERS)
      _jorn_offer(${back_room} ${folder} ${arg_PRIVATE_HEADERS})
      target_include_directories(${name} PRIVATE ${back_room})
    endif()
    jorn_use_precompiled(${name} "${JORN_PRECOMPILED}")
    if(CMAKE_UNITY_BUILD) # where GCC takes each source for a header
      target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
    endif()
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${room})
    target_link_libraries(${name} INTERFACE ${arg_LINKS})
  endif()
  list(TRANSFORM arg_HEADERS PREPEND ${folder}/)
  set_target_properties(${name} PROPERTIES JORN_HEADERS "${arg_HEADERS}")
endfunction()

function(_jorn_offer room folder)
  file(MAKE_DIRECTORY ${room}/${folder})
  foreach(header IN LISTS ARGN)
    file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${room}/${folder}/${header} SYMBOLIC)
  endforeach()
endfunction()
