# SPDX-License-Identifier: ISC
# Toolchain file: builds for the target FWUPDATE_ARCH with what `testbed/toolchain ARCH`
# made. The programs look for their libraries where a router has them; nothing in them
# points into build/.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES FWUPDATE_ARCH)
if(FWUPDATE_ARCH STREQUAL x86_64-musl)
  set(binutils x86_64-linux-gnu)
  set(CMAKE_SYSTEM_PROCESSOR x86_64)
elseif(FWUPDATE_ARCH MATCHES "^(mips|mipsel)-musl$")
  set(binutils ${CMAKE_MATCH_1}-linux-gnu)
  set(CMAKE_SYSTEM_PROCESSOR ${CMAKE_MATCH_1})
  # A router's build system gives these to every package for such a processor: shorter
  # instructions, which may call libraries without them.
  set(CMAKE_C_FLAGS_INIT "-mips16 -minterlink-mips16")
  set(CMAKE_CXX_FLAGS_INIT "-mips16 -minterlink-mips16")
elseif(FWUPDATE_ARCH STREQUAL aarch64-musl)
  set(binutils aarch64-linux-gnu)
  set(CMAKE_SYSTEM_PROCESSOR aarch64)
elseif(FWUPDATE_ARCH STREQUAL armhf-musl)
  set(binutils arm-linux-gnueabihf)
  set(CMAKE_SYSTEM_PROCESSOR armv7l)
  # What changed between old compilers matters to nobody here, and fills pages.
  set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
else()
  message(FATAL_ERROR "FWUPDATE_ARCH is '${FWUPDATE_ARCH}'; it takes x86_64-musl, mips-musl, mipsel-musl, aarch64-musl or armhf-musl")
endif()

get_filename_component(toolchain "${CMAKE_CURRENT_LIST_DIR}/../build/toolchain/${FWUPDATE_ARCH}" ABSOLUTE)
if(NOT EXISTS "${toolchain}/bin/${FWUPDATE_ARCH}-g++")
  message(FATAL_ERROR "${toolchain} is missing; 'testbed/toolchain ${FWUPDATE_ARCH}' makes it")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER "${toolchain}/bin/${FWUPDATE_ARCH}-gcc")
set(CMAKE_CXX_COMPILER "${toolchain}/bin/${FWUPDATE_ARCH}-g++")
foreach(tool IN ITEMS AR RANLIB STRIP NM OBJCOPY)
  string(TOLOWER ${tool} name)
  set(CMAKE_${tool} /usr/bin/${binutils}-${name} CACHE FILEPATH "")
endforeach()
set(CMAKE_LINKER /usr/bin/${binutils}-ld CACHE FILEPATH "")
# With what optimizes across files.
foreach(language IN ITEMS C CXX)
  set(CMAKE_${language}_COMPILER_AR /usr/bin/${binutils}-gcc-ar CACHE FILEPATH "")
  set(CMAKE_${language}_COMPILER_RANLIB /usr/bin/${binutils}-gcc-ranlib CACHE FILEPATH "")
endforeach()

# Programs of this machine, everything else of the other one.
set(CMAKE_FIND_ROOT_PATH "${toolchain}/root")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${toolchain}/root")
set(ENV{PKG_CONFIG_LIBDIR} "${toolchain}/root/usr/lib/pkgconfig")
