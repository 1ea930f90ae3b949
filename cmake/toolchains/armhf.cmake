# Cross build for the 32-bit ARM (hard-float) access points with Debian's
# arm-linux-gnueabihf toolchain (g++-arm-linux-gnueabihf). SQLite and
# GoogleTest come from the sysroot that scripts/armhf-sysroot.sh prepares;
# the C and C++ run-time are the toolchain's own. Programs built here run on
# the build machine under qemu-arm (package qemu-user).
#
#   scripts/armhf-sysroot.sh
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

get_filename_component(_dorvand_top "${CMAKE_CURRENT_LIST_DIR}/../.." ABSOLUTE)
set(DORVAND_ARMHF_SYSROOT "${_dorvand_top}/build-deps/armhf-sysroot"
    CACHE PATH "armhf libraries and headers (scripts/armhf-sysroot.sh)")
if(NOT EXISTS "${DORVAND_ARMHF_SYSROOT}/usr/include/sqlite3.h")
  message(FATAL_ERROR "no armhf sysroot at ${DORVAND_ARMHF_SYSROOT}: run scripts/armhf-sysroot.sh")
endif()

# Libraries, headers and package files only from the sysroot and the
# toolchain's own folder; programs (the emulator, python) from the host.
set(CMAKE_FIND_ROOT_PATH "${DORVAND_ARMHF_SYSROOT}" /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# qemu-arm -L maps the guest's /lib and /usr/lib onto the sysroot, where
# the loader finds the C library (through the sysroot's lib link) and SQLite.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L "${DORVAND_ARMHF_SYSROOT}")
