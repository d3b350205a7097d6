# A device build is the daemon, against the platform's libraries, and platform_check, which tries
# these. avcore stands in for a platform, and here is one; tests and benchmarks need it. jornctl talks
# to the daemon beside it, so it is built for the device where somebody there is to type.
option(JORN_JORNCTL "With device: build jornctl, too" OFF)
set(BUILD_TESTING OFF)
set(JORN_TOOLS OFF)
set(JORN_BENCH OFF)

# The C++ runtime goes along in the programs: a device needn't have one, or may have an older one
# than the compiler's.
option(JORN_STATIC_RUNTIME "With device: link libstdc++ and libgcc in" ON)
if(JORN_STATIC_RUNTIME)
  add_link_options($<$<LINK_LANGUAGE:CXX>:-static-libstdc++> $<$<LINK_LANGUAGE:CXX>:-static-libgcc>)
endif()

# The libraries lie elsewhere on the device than here.
set(CMAKE_SKIP_RPATH ON)

if(NOT JORN_PLATFORM_LIBS)
  message(FATAL_ERROR
    "A device build needs -DJORN_PLATFORM_LIBS='/folder/libpsm.so;...': the libraries that export "
    "the operations declared in src/platform/*.h. README.md, \"For a device\", says more.")
endif()

# What to link. A library without a name of its own would be asked for by its path on this machine;
# IMPORTED_NO_SONAME makes its file name the name.
set(JORN_PLATFORM_ITEMS "")
foreach(item IN LISTS JORN_PLATFORM_LIBS)
  if(IS_ABSOLUTE "${item}" AND NOT EXISTS "${item}")
    message(FATAL_ERROR "JORN_PLATFORM_LIBS: there is no ${item}")
  endif()
  if(IS_ABSOLUTE "${item}" AND item MATCHES "\\.so$")
    get_filename_component(name "${item}" NAME_WE)
    add_library(device_${name} SHARED IMPORTED GLOBAL)
    set_target_properties(device_${name} PROPERTIES
      IMPORTED_LOCATION "${item}" IMPORTED_NO_SONAME ON)
    set(item device_${name})
  endif()
  list(APPEND JORN_PLATFORM_ITEMS ${item})
endforeach()
