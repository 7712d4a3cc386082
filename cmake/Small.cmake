# SPDX-License-Identifier: ISC
# FWUPDATE_SMALL: what makes the program smaller and costs none of its hardening.
# FWUPDATE_PACKED takes the last padding out of the file, too. It saves 1.5 KB of the file, and
# nothing in flash, where files are compressed.
# docs/size.md has the figures.
#
# make_small(PROGRAM OBJECTS) changes the program and the objects that it is made of.

# GNU ld ends the part that is read-only after relocation (RELRO) on a page, and
# begins every other kind of memory on one, by padding the file: up to 4 KiB each.
# Padding addresses instead costs no byte of the file: what lies at a page's end in
# one segment is mapped once more at the beginning of the next one's first page. This
# takes the linker's own script and changes a few lines; without them it is left alone.
function(write_packed_layout result)
  set(${result} "" PARENT_SCOPE)
  execute_process(COMMAND ${CMAKE_LINKER} --verbose -z relro -z now -pie
                  OUTPUT_VARIABLE script ERROR_QUIET)
  if(NOT script MATCHES "\n=+\n(.*)\n=+\n" OR NOT script MATCHES "DATA_SEGMENT_ALIGN" OR
     NOT script MATCHES "\n  \\.init_array  *:" OR NOT script MATCHES "DATA_SEGMENT_RELRO_END")
    message(STATUS "layout of the program: the linker's own (${CMAKE_LINKER} has no known script)")
    return()
  endif()
  string(REGEX REPLACE ".*\n=+\n(.*)\n=+\n.*" "\\1" script "${script}")

  set(page "CONSTANT (COMMONPAGESIZE)")
  set(next_page "ALIGN(CONSTANT (MAXPAGESIZE)) + (. & (CONSTANT (MAXPAGESIZE) - 1))")
  # Code: the same place on the next page. Behind it, the read-only data do so already.
  string(REPLACE ". = ALIGN(CONSTANT (MAXPAGESIZE));\n  /* Adjust" "/* Adjust" script "${script}")
  string(REPLACE ". = ALIGN(CONSTANT (MAXPAGESIZE));" ". = ${next_page};" script "${script}")
  # RELRO: the linker moves it up until it ends on a page. A padding that takes up
  # memory only makes that the place where the file is without padding. Both parts
  # begin on a multiple of the largest alignment in it, or sizes would depend on places.
  string(REGEX REPLACE "(  \\. = DATA_SEGMENT_ALIGN[^\n]*\n)"
         "  . = ALIGN(32);\n  HIDDEN(relro_offset = .);\n\\1  HIDDEN(relro_start = .);\n"
         script "${script}")
  string(REGEX REPLACE "\n  \\.init_array  *:" "\n  .init_array : ALIGN(32)" script "${script}")
  string(REGEX REPLACE "(  \\. = DATA_SEGMENT_RELRO_END[^\n]*\n)"
         "  HIDDEN(relro_padding = ${page} - ((relro_offset + . - relro_start) & (${page} - 1)));
  .relro_padding (NOLOAD) : { . += relro_padding; }
\\1  . = . + ((ADDR (.got) + SIZEOF (.got)) & (${page} - 1));\n"
         script "${script}")
  # Which compiler and which kernel it was made with and for: nobody asks.
  string(REGEX REPLACE "\n  \\.comment[^\n]*" "" script "${script}")
  string(REPLACE "/DISCARD/ : {" "/DISCARD/ : { *(.comment) *(.note.ABI-tag)" script "${script}")
  # The same script again must not look newer: the program would be linked once more.
  set(old "")
  if(EXISTS ${CMAKE_BINARY_DIR}/packed.ld)
    file(READ ${CMAKE_BINARY_DIR}/packed.ld old)
  endif()
  if(NOT old STREQUAL script)
    file(WRITE ${CMAKE_BINARY_DIR}/packed.ld "${script}")
  endif()
  set(${result} ${CMAKE_BINARY_DIR}/packed.ld PARENT_SCOPE)
endfunction()

function(make_small program objects)
  # Nothing throws, and a router has no debugger that would read the tables.
  target_compile_options(${objects} PRIVATE -fno-unwind-tables -fno-asynchronous-unwind-tables)
  target_compile_options(${program} PRIVATE -fno-unwind-tables -fno-asynchronous-unwind-tables)
  target_link_options(${program} PRIVATE -Wl,--build-id=none)
  # All addresses are bound at the start anyway; on x86-64 a call through the table of
  # addresses is hardly longer than the stub that it saves.
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64 AND FWUPDATE_HARDENING)
    target_compile_options(${objects} PRIVATE -fno-plt)
  endif()
  # These linkers leave room for pages of 64 KiB, which would be padding in the file. The
  # kernels of routers have pages of 4 KiB.
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(mips|mipsel|aarch64)$")
    target_link_options(${program} PRIVATE -Wl,-z,max-page-size=4096)
  endif()
  # MIPS has its table of addresses behind the data that can be written to: there is no
  # read-only part to pad for.
  set(layout "")
  if(FWUPDATE_PACKED AND NOT CMAKE_SYSTEM_PROCESSOR MATCHES "^mips")
    write_packed_layout(layout)
  endif()
  if(layout)
    # Not -Wl, which takes a comma in the path for the end of a word.
    target_link_options(${program} PRIVATE "SHELL:-T \"${layout}\"")
    set_property(TARGET ${program} APPEND PROPERTY LINK_DEPENDS ${layout})
  else()
    target_link_options(${program} PRIVATE -Wl,-z,noseparate-code)
  endif()
endfunction()
