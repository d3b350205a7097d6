# 32-bit ARM with hardware floating point, by Debian's cross compiler (g++-arm-linux-gnueabihf).
# JORN_SYSROOT is the folder under which the device's libraries lie as they do on the device, libpcap
# with its header and its pkg-config file:
#   cmake --preset device --toolchain cmake/arm-linux-gnueabihf.cmake -DJORN_SYSROOT=/folder
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(triplet arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
# No C++ of a compiler before GCC 7.1 is linked: its notes on what changed then concern nobody.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# CMake's trial compilations read this file too, in a project of their own.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES JORN_SYSROOT)
set(JORN_SYSROOT "" CACHE PATH "Folder with the device's libraries, libpcap among them")
if(NOT IS_DIRECTORY "${JORN_SYSROOT}")
  message(FATAL_ERROR "JORN_SYSROOT has to name the folder with the device's libraries, "
    "not '${JORN_SYSROOT}'")
endif()

# Where Debian keeps what of a library's headers differs between processors (OpenSSL's do): after the
# compiler's own, which go with the C library that it links.
foreach(language IN ITEMS C CXX)
  string(APPEND CMAKE_${language}_FLAGS_INIT " -idirafter ${JORN_SYSROOT}/usr/include/${triplet}")
endforeach()

# The compiler's own C library is linked; what the device's libraries need is looked for beside
# them.
foreach(folder IN ITEMS lib usr/lib lib/${triplet} usr/lib/${triplet})
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${JORN_SYSROOT}/${folder}")
endforeach()

# Where a library is a script for the linker, as ncurses is, that names others there by their files.
foreach(folder IN ITEMS lib lib/${triplet})
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -L${JORN_SYSROOT}/${folder}")
endforeach()

# Libraries and headers are the device's; programs, like pkg-config, are this machine's.
set(CMAKE_FIND_ROOT_PATH ${JORN_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${JORN_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${JORN_SYSROOT}/usr/lib/${triplet}/pkgconfig:${JORN_SYSROOT}/usr/lib/pkgconfig)
