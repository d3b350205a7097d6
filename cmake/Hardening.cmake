# The daemon reads strangers' bytes as root: a fault in that shall end the process, not lend anybody
# its rights. So what is built optimised has a stack protector, the C library's checked calls,
# addresses that nobody knows beforehand, and no table of functions that can be written to once the
# program runs. Sanitizers look for more in the same places; without optimisation the checked calls
# don't exist. OFF is for measuring what it costs.
option(JORN_HARDENING "Stack protector, checked calls of the C library, PIE and full RELRO" ON)
if(JORN_HARDENING AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug" AND NOT JORN_SANITIZE)
  set(JORN_HARDENED ON)
  include(CheckPIESupported)
  check_pie_supported()
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  # Level 3 also checks sizes that are known only when the program runs; it came with GCC 12.
  set(level 3)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 12)
    set(level 2)
  endif()
  add_compile_options(-fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=${level})
  add_link_options(-Wl,-z,relro,-z,now)
endif()
