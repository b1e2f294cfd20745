# Cross build for 32-bit Arm Linux (Debian's armhf: ARMv7-A, hard-float ABI)
# with Debian's cross compiler (gcc-arm-linux-gnueabihf, g++-arm-linux-gnueabihf).
#
#   cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
#         [-DKX_ARMHF_ROOT=/path/to/armhf-root]
#
# KX_ARMHF_ROOT is a Debian armhf root holding the -dev packages of the
# dependencies (scripts/armhf.sh makes one with debootstrap under build/). It
# is the compiler's sysroot, where CMake and pkg-config look for libraries,
# and the library root that qemu-arm runs the built programs with, so that
# ctest runs the suites under emulation as it runs them natively.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(KX_ARMHF_TRIPLE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER ${KX_ARMHF_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KX_ARMHF_TRIPLE}-g++)

if(NOT KX_ARMHF_ROOT)
  if(DEFINED ENV{KX_ARMHF_ROOT})
    set(KX_ARMHF_ROOT "$ENV{KX_ARMHF_ROOT}")
  else()
    get_filename_component(KX_ARMHF_ROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-root" ABSOLUTE)
  endif()
endif()
set(KX_ARMHF_ROOT "${KX_ARMHF_ROOT}" CACHE PATH "Debian armhf root: sysroot of the cross build and qemu's library root")
if(NOT EXISTS "${KX_ARMHF_ROOT}/usr/lib/${KX_ARMHF_TRIPLE}")
  message(FATAL_ERROR "no Debian armhf root at ${KX_ARMHF_ROOT} (scripts/armhf.sh makes one)")
endif()
# try_compile projects read the toolchain file again: hand the root on.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KX_ARMHF_ROOT)

set(CMAKE_SYSROOT "${KX_ARMHF_ROOT}")
set(CMAKE_FIND_ROOT_PATH "${KX_ARMHF_ROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config sees only the root's .pc files, and prefixes their paths with it.
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR} "${KX_ARMHF_ROOT}/usr/lib/${KX_ARMHF_TRIPLE}/pkgconfig:${KX_ARMHF_ROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KX_ARMHF_ROOT}")

# ctest (and add_custom_command's uses of built programs) run them under qemu.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L "${KX_ARMHF_ROOT}")

# GCC notes on every std::vector of a record with a 64-bit member that the
# argument passing of such records changed in GCC 7.1; everything here is
# built by one compiler, so the note says nothing about this build.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
