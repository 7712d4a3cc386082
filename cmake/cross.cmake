# SPDX-License-Identifier: ISC
# Toolchain file: builds for the architecture FWUPDATE_ARCH with Debian's cross
# compiler against the packages that `testbed/sysroot ARCH` unpacked. The programs
# look for their libraries where a router has them; nothing in them points into
# build/.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES FWUPDATE_ARCH)
if(FWUPDATE_ARCH STREQUAL armhf)
  set(triplet arm-linux-gnueabihf)
  set(CMAKE_SYSTEM_PROCESSOR armv7l)
  # What changed between old compilers matters to nobody here, and fills pages.
  set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
elseif(FWUPDATE_ARCH STREQUAL s390x)
  set(triplet s390x-linux-gnu)
  set(CMAKE_SYSTEM_PROCESSOR s390x)
else()
  message(FATAL_ERROR "FWUPDATE_ARCH is '${FWUPDATE_ARCH}'; it takes armhf or s390x")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)

get_filename_component(CMAKE_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${FWUPDATE_ARCH}"
                       ABSOLUTE)
if(NOT EXISTS "${CMAKE_SYSROOT}/.packages")
  message(FATAL_ERROR "${CMAKE_SYSROOT} is missing; 'testbed/sysroot ${FWUPDATE_ARCH}' makes it")
endif()

# Programs of this machine, everything else of the other one.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_SYSROOT}/usr/lib/${triplet}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")

