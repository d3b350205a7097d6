# Headers that the tools and the tests include everywhere, read once for all sources that are compiled
# alike: for whoever builds all again and again (the presets of scripts/test).
#
# None of them is the house's, so the walls between the libraries stand. A source still includes all
# that it uses, which any other build shows, and clang-tidy, which reads it plain. The daemon's
# sources include little. What ccache spares is more, and it wouldn't know a source with such headers.
option(JORN_PCH "Precompile what the tools and the tests include everywhere" OFF)
if(CMAKE_CXX_COMPILER_LAUNCHER MATCHES "ccache")
  set(JORN_PCH OFF)
endif()

# jorn_precompiled(NAME [PROGRAMS] LINKS ... HEADERS ...)
#
# Makes what jorn_use_precompiled takes by NAME: the standard library's headers and HEADERS, with the
# flags of LINKS and of the folder; with PROGRAMS for the sources of programs, not of libraries, which
# are another kind of code to GCC.
function(jorn_precompiled name)
  cmake_parse_arguments(arg "PROGRAMS" "" "LINKS;HEADERS" ${ARGN})
  if(NOT JORN_PCH)
    return()
  endif()
  file(CONFIGURE OUTPUT ${name}.cpp CONTENT "// The headers alone.\n")
  add_library(${name} OBJECT ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
  target_link_libraries(${name} PRIVATE ${arg_LINKS})
  if(arg_PROGRAMS AND CMAKE_POSITION_INDEPENDENT_CODE)
    set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
    target_compile_options(${name} PRIVATE ${CMAKE_CXX_COMPILE_OPTIONS_PIE})
  endif()
  target_precompile_headers(${name} PRIVATE
    <algorithm> <array> <cerrno> <charconv> <chrono> <compare> <cstddef> <cstdint> <cstdio> <cstdlib>
    <cstring> <ctime> <deque> <filesystem> <functional> <iostream> <iterator> <list> <map> <memory>
    <optional> <set> <span> <stdexcept> <string> <string_view> <system_error> <unordered_map>
    <utility> <variant> <vector> ${arg_HEADERS})
endfunction()

function(jorn_use_precompiled target name)
  if(TARGET ${name})
    target_precompile_headers(${target} REUSE_FROM ${name})
  endif()
endfunction()

# For sources that run once and include what is long to compile, CLI11: optimised no more than the C
# library's checked calls want it, which is another way to compile than the headers'.
function(jorn_compile_shortly)
  set_source_files_properties(${ARGN} PROPERTIES
    COMPILE_OPTIONS $<IF:$<BOOL:${JORN_HARDENED}>,-O1,-O0> SKIP_PRECOMPILE_HEADERS ON)
endfunction()
