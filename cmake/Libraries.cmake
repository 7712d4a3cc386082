# SPDX-License-Identifier: ISC
# Where the libraries come from. libcurl, Mini-XML and zlib are always the real ones.
# libubox, libubus and miniz are in no Debian release: `auto` takes the real ones
# where they are installed, zlib for miniz, and the testbed's stand-ins where they
# are not.
#
# The rest of the project links fwupdate::{ubox,blobmsg_json,ubus,crc32,curl,mxml}
# and never asks which kind it got. The unpacking of archives, which is not in the
# program, links fwupdate::miniz, which there need not be.
set(FWUPDATE_LIBRARIES auto CACHE STRING "Origin of libubox, libubus, miniz: auto, system, testbed")
set_property(CACHE FWUPDATE_LIBRARIES PROPERTY STRINGS auto system testbed)
if(NOT FWUPDATE_LIBRARIES MATCHES "^(auto|system|testbed)$")
  message(FATAL_ERROR "FWUPDATE_LIBRARIES is '${FWUPDATE_LIBRARIES}'; it takes auto, system or testbed")
endif()

find_package(PkgConfig REQUIRED)
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl)
add_library(fwupdate::curl ALIAS PkgConfig::CURL)
# Versions 3 and 4 of Mini-XML may both be installed: the header that is found decides which library.
find_path(MXML_INCLUDE_DIR mxml.h PATH_SUFFIXES libmxml4 REQUIRED)
file(STRINGS ${MXML_INCLUDE_DIR}/mxml.h mxml_version REGEX "define +MXML_MAJOR_VERSION")
string(REGEX MATCH "[0-9]+" MXML_MAJOR "${mxml_version}")
set(mxml_names mxml)
if(MXML_MAJOR GREATER_EQUAL 4)
  list(PREPEND mxml_names mxml${MXML_MAJOR})
endif()
find_library(MXML_LIBRARY NAMES ${mxml_names} REQUIRED)
add_library(fwupdate::mxml INTERFACE IMPORTED)
target_include_directories(fwupdate::mxml SYSTEM INTERFACE ${MXML_INCLUDE_DIR})
target_link_libraries(fwupdate::mxml INTERFACE ${MXML_LIBRARY})
target_compile_definitions(fwupdate::mxml INTERFACE FWUPDATE_MXML_MAJOR=${MXML_MAJOR})

# Looks for one installed library; sets <name>_FOUND_ON_SYSTEM and, when found,
# makes fwupdate::<name>.
function(find_system_library name header library)
  find_path(FWUPDATE_${name}_INCLUDE_DIR NAMES ${header} PATH_SUFFIXES ${name})
  find_library(FWUPDATE_${name}_LIBRARY NAMES ${library})
  mark_as_advanced(FWUPDATE_${name}_INCLUDE_DIR FWUPDATE_${name}_LIBRARY)
  if(FWUPDATE_${name}_INCLUDE_DIR AND FWUPDATE_${name}_LIBRARY)
    set(${name}_FOUND_ON_SYSTEM TRUE PARENT_SCOPE)
  else()
    set(${name}_FOUND_ON_SYSTEM FALSE PARENT_SCOPE)
  endif()
endfunction()

function(use_system_library name)
  add_library(fwupdate::${name} INTERFACE IMPORTED GLOBAL)
  target_include_directories(fwupdate::${name} SYSTEM INTERFACE ${FWUPDATE_${name}_INCLUDE_DIR})
  target_link_libraries(fwupdate::${name} INTERFACE ${FWUPDATE_${name}_LIBRARY})
endfunction()

if(NOT FWUPDATE_LIBRARIES STREQUAL testbed)
  find_system_library(ubox libubox/uloop.h ubox)
  find_system_library(ubus libubus.h ubus)
  find_system_library(blobmsg_json libubox/blobmsg_json.h blobmsg_json)
  find_system_library(miniz miniz.h miniz)
endif()

# libubus is built on libubox's structures: the two are taken from one place or
# not at all. The daemon itself does without blobmsg_json.
set(bus_origin testbed)
if(ubox_FOUND_ON_SYSTEM AND ubus_FOUND_ON_SYSTEM
   AND (blobmsg_json_FOUND_ON_SYSTEM OR NOT BUILD_TESTING))
  set(bus_origin system)
endif()
if(FWUPDATE_LIBRARIES STREQUAL system AND NOT bus_origin STREQUAL system)
  message(FATAL_ERROR "FWUPDATE_LIBRARIES=system, but not both of libubox and libubus were found; "
                      "CMAKE_PREFIX_PATH says where to look")
endif()

if(bus_origin STREQUAL system)
  use_system_library(ubox)
  use_system_library(ubus)
  if(blobmsg_json_FOUND_ON_SYSTEM)
    use_system_library(blobmsg_json)
  endif()
else()
  add_subdirectory(testbed/lib/libubox)
  add_subdirectory(testbed/lib/libubus)
endif()

# Of miniz the program uses the CRC-32 alone, and zlib's is the same.
add_library(fwupdate::crc32 INTERFACE IMPORTED)
if(miniz_FOUND_ON_SYSTEM)
  set(crc32_origin miniz)
  use_system_library(miniz)
  target_link_libraries(fwupdate::crc32 INTERFACE fwupdate::miniz)
  target_compile_definitions(fwupdate::crc32 INTERFACE FWUPDATE_CRC32_BY_MINIZ=1)
else()
  set(crc32_origin zlib)
  find_package(ZLIB REQUIRED)
  target_link_libraries(fwupdate::crc32 INTERFACE ZLIB::ZLIB)
  if(BUILD_TESTING)
    add_subdirectory(testbed/lib/miniz)
  endif()
endif()

message(STATUS "libubox, libubus: ${bus_origin}")
message(STATUS "CRC-32: ${crc32_origin}")
message(STATUS "libcurl: system ${CURL_VERSION}; Mini-XML: system ${MXML_MAJOR}")
