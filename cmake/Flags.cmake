# SPDX-License-Identifier: ISC
# Compiler and linker flags, by purpose. Whoever asks for nothing gets the hardened
# program. What the flags from outside say about hardening counts.
option(FWUPDATE_WERROR "Treat warnings as errors" OFF)
option(FWUPDATE_HARDENING "Fortify, stack protector, RELRO, immediate binding" ON)
option(FWUPDATE_SMALL "No unwind tables, no build id, little padding in the file" OFF)
option(FWUPDATE_PACKED "No padding in the file, by a linker script of ours" OFF)
option(FWUPDATE_SANITIZE "Address and undefined behaviour sanitizers, no recovery" OFF)

add_compile_options(-Wall -Wextra -Wshadow -Wconversion)
# A file of 2 GiB or more can be opened and measured on 32 bits, too.
add_compile_definitions(_FILE_OFFSET_BITS=64)
if(FWUPDATE_WERROR)
  add_compile_options(-Werror)
endif()

add_compile_options(-ffunction-sections -fdata-sections)
add_link_options(-Wl,--gc-sections -Wl,--as-needed)

if(FWUPDATE_HARDENING)
  if(NOT CMAKE_CXX_FLAGS MATCHES "-f(no-)?stack-protector")
    add_compile_options(-fstack-protector-strong)
  endif()
  # Fortify works on what the optimizer knows, and warns without it.
  if(NOT CMAKE_CXX_FLAGS MATCHES "_FORTIFY_SOURCE")
    add_compile_options($<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  endif()
  add_link_options(-pie -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endif()

if(FWUPDATE_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
