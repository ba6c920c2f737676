# Cross-build for aarch64 Linux with Debian's cross compiler (crossbuild-essential-arm64) against an
# arm64 sysroot folder made by scripts/make-arm64-sysroot.sh.
#   cmake -S . -B build/arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
#         -DSTYLUS_ARM64_SYSROOT=$PWD/build/arm64-sysroot
# Programs built here run on this machine under qemu-user with the sysroot as its library prefix;
# ctest and the tests' helper commands go through CMAKE_CROSSCOMPILING_EMULATOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# GCC notes that passing small float pairs changed ABI in GCC 10; everything here, the host's
# libraries included, is built by a later GCC.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

if(NOT STYLUS_ARM64_SYSROOT AND DEFINED ENV{STYLUS_ARM64_SYSROOT})
  set(STYLUS_ARM64_SYSROOT "$ENV{STYLUS_ARM64_SYSROOT}")
endif()
if(NOT STYLUS_ARM64_SYSROOT OR NOT EXISTS "${STYLUS_ARM64_SYSROOT}/usr/lib/aarch64-linux-gnu")
  message(FATAL_ERROR "STYLUS_ARM64_SYSROOT must name an arm64 sysroot (scripts/make-arm64-sysroot.sh DIR): "
                      "'${STYLUS_ARM64_SYSROOT}'")
endif()
# try_compile projects read the toolchain file again, without the cache.
set(ENV{STYLUS_ARM64_SYSROOT} "${STYLUS_ARM64_SYSROOT}")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES STYLUS_ARM64_SYSROOT)

set(CMAKE_SYSROOT "${STYLUS_ARM64_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${STYLUS_ARM64_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The sysroot's libraries are found at their device paths under qemu's prefix, the way the device's
# loader finds them, rather than through an rpath into this machine's folders.
find_program(STYLUS_QEMU_AARCH64 NAMES qemu-aarch64-static qemu-aarch64)
if(STYLUS_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${STYLUS_QEMU_AARCH64};-L;${STYLUS_ARM64_SYSROOT}")
endif()
