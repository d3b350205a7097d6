# The daemon, optimised for what it was counted to do: scripts/build-pgo goes the three steps. A count
# lies beside the object that it was made with, so both builds are one folder's, one behind the other.
set(JORN_PGO "" CACHE STRING "train: count what the daemon does; use: optimise for what was counted")
set_property(CACHE JORN_PGO PROPERTY STRINGS "" train use)
set(JORN_PGO_FLAGS "")
if(JORN_PGO STREQUAL "train")
  set(JORN_PGO_FLAGS -fprofile-generate)
  add_link_options(-fprofile-generate) # whoever links an object that counts
elseif(JORN_PGO STREQUAL "use")
  file(GLOB_RECURSE counts ${CMAKE_BINARY_DIR}/*.gcda)
  if(NOT counts)
    message(FATAL_ERROR "There are no counts in ${CMAKE_BINARY_DIR}: scripts/build-pgo makes them")
  endif()
  # Much of the daemon isn't on the road of a packet, and has no count.
  set(JORN_PGO_FLAGS -fprofile-use -Wno-missing-profile)
elseif(JORN_PGO)
  message(FATAL_ERROR "JORN_PGO is train or use, not '${JORN_PGO}'")
endif()
if(JORN_PGO AND NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  message(FATAL_ERROR "JORN_PGO is for GCC")
endif()
