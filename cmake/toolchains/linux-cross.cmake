# Shared part of the ARM Linux toolchain files: a Debian cross compiler for AIPQ_TARGET_TRIPLET
# building against a self-contained target sysroot, and qemu user mode to run what it builds.
#
#   AIPQ_SYSROOT   the target's root file system (headers, libraries, pkg-config files); default
#                  /var/cache/aipq/sysroot-<arch>, which scripts/cross_arm.sh makes from Debian's
#                  packages. A vendor points it at their board's SDK sysroot.
#   AIPQ_CROSS_PREFIX  compiler prefix (default "<triplet>-"), for a vendor's own cross compiler.

set(CMAKE_SYSTEM_NAME Linux)

if(NOT DEFINED AIPQ_SYSROOT OR AIPQ_SYSROOT STREQUAL "")
  if(DEFINED ENV{AIPQ_SYSROOT} AND NOT "$ENV{AIPQ_SYSROOT}" STREQUAL "")
    set(AIPQ_SYSROOT "$ENV{AIPQ_SYSROOT}")
  else()
    set(AIPQ_SYSROOT "/var/cache/aipq/sysroot-${AIPQ_DEBIAN_ARCH}")
  endif()
endif()
set(AIPQ_SYSROOT "${AIPQ_SYSROOT}" CACHE PATH "Target root file system to build against")
if(NOT DEFINED AIPQ_CROSS_PREFIX)
  set(AIPQ_CROSS_PREFIX "${AIPQ_TARGET_TRIPLET}-")
endif()
set(AIPQ_CROSS_PREFIX "${AIPQ_CROSS_PREFIX}" CACHE STRING "Cross compiler prefix")
# try_compile projects read this file again and see only what is listed here.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES AIPQ_SYSROOT AIPQ_CROSS_PREFIX)

if(NOT EXISTS "${AIPQ_SYSROOT}/usr/include")
  message(FATAL_ERROR "No target sysroot at '${AIPQ_SYSROOT}': run scripts/cross_arm.sh ${AIPQ_DEBIAN_ARCH}, "
                      "or pass -DAIPQ_SYSROOT=<your board's sysroot>")
endif()

set(CMAKE_SYSROOT "${AIPQ_SYSROOT}")
set(CMAKE_C_COMPILER "${AIPQ_CROSS_PREFIX}gcc")
set(CMAKE_CXX_COMPILER "${AIPQ_CROSS_PREFIX}g++")
set(CMAKE_LIBRARY_ARCHITECTURE "${AIPQ_TARGET_TRIPLET}")

# Headers, libraries and CMake packages come from the sysroot only; programs from the build machine.
set(CMAKE_FIND_ROOT_PATH "${AIPQ_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config must see the target's .pc files only, with their paths moved into the sysroot.
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_LIBDIR}
    "${AIPQ_SYSROOT}/usr/lib/${AIPQ_TARGET_TRIPLET}/pkgconfig:${AIPQ_SYSROOT}/usr/lib/pkgconfig:${AIPQ_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${AIPQ_SYSROOT}")

# Tests and test discovery run under qemu user mode; the programs the tests start reach qemu
# through binfmt_misc (scripts/cross_arm.sh registers it).
find_program(AIPQ_QEMU NAMES qemu-${AIPQ_QEMU_ARCH}-static qemu-${AIPQ_QEMU_ARCH})
if(AIPQ_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../../scripts/qemu_run.sh ${AIPQ_QEMU_OPTIONS}
                                    "${AIPQ_QEMU}" "${AIPQ_SYSROOT}")
endif()
