# Installs the build tree into a staging prefix and uses it as an outsider
# would: two tiny C cores built against it (pkg-config, find_package), and the
# installed probe, each running against the installed library and the
# installed emulator module.
#
# Inputs: BUILD_DIR, SOURCE_DIR, WORK_DIR, LIBDIR, INCLUDEDIR, BINDIR,
#         C_COMPILER, C_FLAGS, LINKER_FLAGS, GENERATOR.
cmake_minimum_required(VERSION 3.25)

function(run_checked what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  set(RUN_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

function(expect_symlink link target)
  if(NOT IS_SYMLINK "${link}")
    message(FATAL_ERROR "${link} is not a symbolic link")
  endif()
  file(READ_SYMLINK "${link}" actual)
  if(NOT actual STREQUAL target)
    message(FATAL_ERROR "${link} points to '${actual}', expected '${target}'")
  endif()
endfunction()

function(expect_frames what output)
  if(NOT output MATCHES "consumer: library '([^']*)'")
    message(FATAL_ERROR "${what}: library not reported:\n${output}")
  endif()
  get_filename_component(loaded "${CMAKE_MATCH_1}" REALPATH)
  if(NOT loaded STREQUAL "${STAGE}/${LIBDIR}/libtavikDDI.so.3.1.88")
    message(FATAL_ERROR "${what}: ran against '${CMAKE_MATCH_1}', not the installed library")
  endif()
  if(NOT output MATCHES "consumer: camera 'tavikSW_0'")
    message(FATAL_ERROR "${what}: emulated camera not found:\n${output}")
  endif()
  if(NOT output MATCHES "consumer: ([0-9]+) BOF, ([0-9]+) EOF")
    message(FATAL_ERROR "${what}: no frame count:\n${output}")
  endif()
  if(CMAKE_MATCH_2 LESS 3)
    message(FATAL_ERROR "${what}: only ${CMAKE_MATCH_2} EOF events:\n${output}")
  endif()
endfunction()

# Nothing from the caller's shell may steer the library.
foreach(var TAVIK_UMD_PATH TAVIK_DDI_LOG_FILE TAVIK_DDI_LOG_LEVEL TAVIK_VIRTUAL_CAMERAS LD_LIBRARY_PATH
            PKG_CONFIG_PATH CMAKE_PREFIX_PATH)
  unset(ENV{${var}})
endforeach()
set(ENV{TAVIK_VIRTUAL_FPS} 100)

file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")
set(STAGE "${WORK_DIR}/stage")
run_checked("cmake --install" ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${STAGE}")

# --- Layout ------------------------------------------------------------------
set(lib "${STAGE}/${LIBDIR}")
expect_symlink("${lib}/libtavikDDI.so" "libtavikDDI.so.3")
expect_symlink("${lib}/libtavikDDI.so.3" "libtavikDDI.so.3.1.88")
set(expected
  "${lib}/libtavikDDI.so.3.1.88"
  "${STAGE}/${INCLUDEDIR}/tavik/tavik.h"
  "${STAGE}/${INCLUDEDIR}/tavik/tavik_types.h"
  "${STAGE}/${INCLUDEDIR}/tavik/tavik_errors.h"
  "${STAGE}/${INCLUDEDIR}/tavik/tavik_driver.h"
  "${STAGE}/${INCLUDEDIR}/tavik/tavik_ddi.h"
  "${lib}/pkgconfig/tavikddi.pc"
  "${lib}/cmake/TavikDDI/TavikDDIConfig.cmake"
  "${lib}/cmake/TavikDDI/TavikDDIConfigVersion.cmake"
  "${lib}/cmake/TavikDDI/TavikDDITargets.cmake"
  "${STAGE}/${BINDIR}/tavik-ddi-probe"
  "${lib}/tavik/modules/tavik_virtual.x86_64.umd")
foreach(file IN LISTS expected)
  if(NOT EXISTS "${file}" OR IS_SYMLINK "${file}")
    message(FATAL_ERROR "missing from the installed tree: ${file}")
  endif()
endforeach()
# Test programs, fixtures, benchmarks and the internal archive stay in the build tree.
file(GLOB_RECURSE installed RELATIVE "${STAGE}" LIST_DIRECTORIES false "${STAGE}/*")
foreach(file IN LISTS installed)
  if(file MATCHES "(test|bench|fixture|\\.a$)")
    message(FATAL_ERROR "installed but not part of the kit: ${file}")
  endif()
endforeach()

# --- A core built with pkg-config ---------------------------------------------
set(ENV{PKG_CONFIG_PATH} "${lib}/pkgconfig")
run_checked("pkg-config" pkg-config --cflags --libs tavikddi)
string(STRIP "${RUN_OUTPUT}" pc_flags)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
run_checked("pkg-config moduledir" pkg-config --variable=moduledir tavikddi)
string(STRIP "${RUN_OUTPUT}" moduledir)
get_filename_component(moduledir_real "${moduledir}" REALPATH)
if(NOT moduledir_real STREQUAL "${lib}/tavik/modules")
  message(FATAL_ERROR "pkg-config moduledir '${moduledir}' is not the installed modules folder")
endif()
separate_arguments(c_flags UNIX_COMMAND "${C_FLAGS}")
separate_arguments(link_flags UNIX_COMMAND "${LINKER_FLAGS}")
run_checked("pkg-config consumer build"
  ${C_COMPILER} ${c_flags} -std=c11 -Wall -Wextra -Werror
  "-DTAVIK_CONSUMER_MODULES_DIR=\"${moduledir}\""
  "${SOURCE_DIR}/consumer/consumer.c" -o "${WORK_DIR}/consumer-pkgconfig"
  ${pc_flags} -pthread ${link_flags})
set(ENV{LD_LIBRARY_PATH} "${lib}")
run_checked("pkg-config consumer run" "${WORK_DIR}/consumer-pkgconfig")
expect_frames("pkg-config consumer" "${RUN_OUTPUT}")
unset(ENV{LD_LIBRARY_PATH})
unset(ENV{PKG_CONFIG_PATH})

# --- A core built with find_package -------------------------------------------
run_checked("find_package consumer configure"
  ${CMAKE_COMMAND} -S "${SOURCE_DIR}/consumer" -B "${WORK_DIR}/consumer-build" -G "${GENERATOR}"
  "-DCMAKE_PREFIX_PATH=${STAGE}" "-DCMAKE_C_COMPILER=${C_COMPILER}"
  "-DCMAKE_C_FLAGS=${C_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${LINKER_FLAGS}")
run_checked("find_package consumer build" ${CMAKE_COMMAND} --build "${WORK_DIR}/consumer-build")
# No LD_LIBRARY_PATH: the imported target's location must be enough.
run_checked("find_package consumer run" "${WORK_DIR}/consumer-build/consumer")
expect_frames("find_package consumer" "${RUN_OUTPUT}")

# --- The installed probe finds the installed library beside it -----------------
run_checked("installed probe" "${STAGE}/${BINDIR}/tavik-ddi-probe" --umd-path "${lib}/tavik/modules" --json)
string(JSON library_path GET "${RUN_OUTPUT}" library path)
string(JSON cameras LENGTH "${RUN_OUTPUT}" cameras)
get_filename_component(library_real "${library_path}" REALPATH)
if(NOT library_real STREQUAL "${lib}/libtavikDDI.so.3.1.88")
  message(FATAL_ERROR "installed probe loaded '${library_path}', not the installed library")
endif()
if(NOT cameras EQUAL 1)
  message(FATAL_ERROR "installed probe lists ${cameras} cameras, expected the one emulated camera")
endif()
# Without TAVIK_UMD_PATH the installed library finds the installed emulator by its
# known name, through its own RUNPATH. A sanitizer runtime intercepts dlopen, so
# the loader sees the runtime as the caller and never consults the library's
# RUNPATH; that lookup can only be checked in an ordinary build.
if(C_FLAGS MATCHES "-fsanitize")
  message(STATUS "installed tree at ${STAGE} works (known-name lookup not checked under a sanitizer)")
  return()
endif()
run_checked("installed probe, known module names" "${STAGE}/${BINDIR}/tavik-ddi-probe" --json)
string(JSON module GET "${RUN_OUTPUT}" drivers 4 module)
get_filename_component(module_real "${module}" REALPATH)
if(NOT module_real STREQUAL "${lib}/tavik/modules/tavik_virtual.x86_64.umd")
  message(FATAL_ERROR "without TAVIK_UMD_PATH the virtual slot holds '${module}', not the installed emulator")
endif()
message(STATUS "installed tree at ${STAGE} works")
