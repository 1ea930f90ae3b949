# Build flags for the access points: the Device configuration and hardening.
#
# -DCMAKE_BUILD_TYPE=Device is the release build for the boards: optimised for
# size, every function and object in its own section so that the linker drops
# what nothing uses. DORVAND_STATIC_RUNTIME links the C++ run-time and libgcc
# into the daemon: many access-point images ship no libstdc++, and the daemon
# uses a small part of it. DORVAND_HARDEN (on by default, every build type)
# adds the usual hardening: fortified libc calls where the build optimises,
# stack protector, read-only relocations resolved at start, position-
# independent executables.

# Plain variables: project() has already put empty cache entries for a build
# type it does not know, and those would win over a cache default.
set(CMAKE_C_FLAGS_DEVICE "-Os -ffunction-sections -fdata-sections")
set(CMAKE_CXX_FLAGS_DEVICE "-Os -ffunction-sections -fdata-sections")
set(CMAKE_EXE_LINKER_FLAGS_DEVICE "-Wl,--gc-sections -Wl,-O1")
set(CMAKE_SHARED_LINKER_FLAGS_DEVICE "-Wl,--gc-sections -Wl,-O1")
# Whole-program optimisation: most of the daemon's functions have one caller
# in another file.
include(CheckIPOSupported)
check_ipo_supported(RESULT dorvand_lto_supported LANGUAGES C CXX)
if(dorvand_lto_supported)
  set(CMAKE_INTERPROCEDURAL_OPTIMIZATION_DEVICE ON)
endif()
# The daemon's own code throws nothing (allocations that may fail are checked
# where they happen) and asks no type at run time, so the boards carry
# neither unwind tables nor type information for it. Only the daemon's
# modules: the tests and the simulator keep the defaults.
set(DORVAND_DEVICE_CODE_FLAGS "$<$<CONFIG:Device>:-fno-exceptions;-fno-rtti>")

option(DORVAND_STATIC_RUNTIME "link libstdc++ and libgcc statically (needs only libc and libsqlite3)" OFF)
option(DORVAND_HARDEN "fortify, stack protector, full RELRO, PIE" ON)

if(DORVAND_STATIC_RUNTIME)
  add_link_options(-static-libstdc++ -static-libgcc)
  # Nothing of the daemon catches an exception, so the run-time's throws and
  # its default terminate handler (which demangles the type of an uncaught
  # exception for a message nobody would see) are replaced by a plain abort,
  # and their exception classes stay out of the image.
  set(DORVAND_RUNTIME_SOURCES ${CMAKE_SOURCE_DIR}/src/daemon/runtime.cpp)
endif()

if(DORVAND_HARDEN)
  add_compile_options(-fstack-protector-strong)
  # Fortified calls need optimisation, and a sanitizer checks the same
  # accesses itself.
  if(NOT DORVAND_SANITIZE)
    add_compile_options($<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  endif()
  add_link_options(-Wl,-z,relro -Wl,-z,now)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  include(CheckPIESupported)
  check_pie_supported()
endif()
