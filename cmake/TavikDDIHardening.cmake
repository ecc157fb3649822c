# The hardening flags that Debian builds its packages with (dpkg-buildflags with
# DEB_BUILD_MAINT_OPTIONS=hardening=+all), plus the stack-clash and CET protection that
# newer dpkg adds on amd64: the library is loaded into programs that run with more rights
# than their user, so the packages must pass hardening-check and lintian's hardening tags.

# Whether the compile flags ask for a sanitizer. Such builds are never shipped, and their
# checks cover what the hardening guards against, so they are not hardened unless asked;
# they never get FORTIFY, whose checked variants of the string functions ASan does not see.
set(TAVIK_SANITIZED OFF)
if(CMAKE_C_FLAGS MATCHES "-fsanitize" OR CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  set(TAVIK_SANITIZED ON)
endif()
set(hardening_default ON)
if(TAVIK_SANITIZED)
  set(hardening_default OFF)
endif()
option(TAVIK_HARDENING "Build with Debian's hardening flags (stack protector, FORTIFY, stack-clash, CET, full RELRO, PIE)"
  ${hardening_default})

# Shared libraries and modules link with --no-undefined, so that a missing symbol fails the
# build rather than a dlopen on a rig. Clang's sanitizer runtime lives in the executable only,
# which leaves every instrumented shared object with undefined __asan_/__ubsan_ symbols.
set(TAVIK_LINK_NO_UNDEFINED -Wl,--no-undefined)
if(TAVIK_SANITIZED AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  set(TAVIK_LINK_NO_UNDEFINED "")
endif()

if(NOT TAVIK_HARDENING)
  return()
endif()

include(CheckCXXCompilerFlag)
include(CheckPIESupported)
foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection)
  string(MAKE_C_IDENTIFIER "TAVIK_HAS${flag}" has)
  check_cxx_compiler_flag(${flag} ${has})
  if(${has})
    add_compile_options(${flag})
  else()
    message(WARNING "${CMAKE_CXX_COMPILER_ID} does not take ${flag}: the build is hardened without it")
  endif()
endforeach()
add_compile_options(-Wformat -Werror=format-security)
# FORTIFY works only where the compiler optimises: at -O0 glibc's headers warn that it is
# off (an error under -Werror). A level given in the flags is kept; a compiler that defines
# one of its own would warn at the redefinition, so it is undefined first.
if(NOT TAVIK_SANITIZED AND NOT "${CMAKE_C_FLAGS} ${CMAKE_CXX_FLAGS}" MATCHES "_FORTIFY_SOURCE")
  add_compile_options("$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
endif()
add_link_options(LINKER:-z,relro LINKER:-z,now)
# Executables are PIE: CMAKE_POSITION_INDEPENDENT_CODE drives the link flag too (CMP0083).
check_pie_supported(LANGUAGES C CXX)
