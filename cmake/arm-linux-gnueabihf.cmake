# 32-bit ARM with hardware floating point, by Debian's cross compiler (g++-arm-linux-gnueabihf).
# JORN_SYSROOT is the folder under which the device's libpcap lies, in usr/include and usr/lib:
#   cmake --preset device --toolchain cmake/arm-linux-gnueabihf.cmake -DJORN_SYSROOT=/folder
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(triplet arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})

# CMake's trial compilations read this file too, in a project of their own.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES JORN_SYSROOT)
set(JORN_SYSROOT "" CACHE PATH "Folder with the device's libpcap")

# Libraries and headers are the device's; programs, like pkg-config, are this machine's.
set(CMAKE_FIND_ROOT_PATH ${JORN_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${JORN_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${JORN_SYSROOT}/usr/lib/${triplet}/pkgconfig:${JORN_SYSROOT}/usr/lib/pkgconfig)
