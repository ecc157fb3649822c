# Builds the Debian packages and checks them as a rig meets them: contents, Depends, lintian, what an unpacked
# kit finds with no variable set, two cores built against the unpacked -dev package, and the run paths that
# the README names. Inputs: BUILD_DIR, WORK_DIR, CPACK, LIBDIR, VERSION, SOURCE_DIR, C_COMPILER, GENERATOR.
include(${CMAKE_CURRENT_LIST_DIR}/RunChecked.cmake)

file(REMOVE_RECURSE "${WORK_DIR}")
run_checked("cpack" "${CPACK}" --config "${BUILD_DIR}/CPackConfig.cmake" -B "${WORK_DIR}")
file(GLOB debs "${WORK_DIR}/*.deb")
# Lintian's hardening tags are of the lowest severity, shown only with --display-info.
run_checked("lintian (tools/install-deps.sh all installs it)" lintian --fail-on error --display-info ${debs})
if(RUN_OUTPUT MATCHES "[^\n]*: hardening-[^\n]*")
  message(FATAL_ERROR "lintian finds a binary unhardened:\n${RUN_OUTPUT}")
endif()

# Each package's files (links with their targets) beside copyright and changelog.
set(lib "usr/${LIBDIR}")
set(cmake "${lib}/cmake/TavikDDI/TavikDDI")
set(include usr/include/tavik/tavik)
set(libtavikddi3 "${lib}/libtavikDDI.so.3 -> libtavikDDI.so.3.1.88" "${lib}/libtavikDDI.so.3.1.88")
set(libtavikddi-dev ${cmake}Config.cmake ${cmake}ConfigVersion.cmake ${cmake}Targets-CONFIG.cmake
  ${cmake}Targets.cmake "${lib}/libtavikDDI.so -> libtavikDDI.so.3" "${lib}/pkgconfig/tavikddi.pc"
  ${include}.h ${include}_ddi.h ${include}_driver.h ${include}_errors.h ${include}_types.h ${include}_virtual.h
  usr/bin/tavik-ddi-compliance usr/share/man/man1/tavik-ddi-compliance.1.gz)
set(tavik-ddi-probe usr/bin/tavik-ddi-probe usr/share/man/man1/tavik-ddi-probe.1.gz)
set(tavik-ddi-emulator "${lib}/tavik/modules/tavik_virtual.x86_64.umd")
foreach(package libtavikddi3 libtavikddi-dev tavik-ddi-probe tavik-ddi-emulator)
  set(deb "${WORK_DIR}/${package}_${VERSION}_amd64.deb")
  list(REMOVE_ITEM debs "${deb}")
  run_checked("dpkg-deb -c ${package}" dpkg-deb -c "${deb}")
  string(REGEX MATCHALL "\n[-l][^\n]*" files "\n${RUN_OUTPUT}")
  list(TRANSFORM files REPLACE "^.* \\./" "")
  list(TRANSFORM files REPLACE "Targets-[a-z]+\\.cmake$" "Targets-CONFIG.cmake")
  list(APPEND ${package} usr/share/doc/${package}/changelog.gz usr/share/doc/${package}/copyright)
  list(SORT files)
  list(SORT ${package})
  if(NOT files STREQUAL ${package})
    message(FATAL_ERROR "${package} carries ${files}\nexpected ${${package}}")
  endif()
  run_checked("dpkg-deb -f ${package}" dpkg-deb -f "${deb}" Depends)
  string(APPEND depends "${package}: ${RUN_OUTPUT}")
endforeach()
# dpkg-shlibdeps names the C and C++ runtimes; the others need the same runtime.
set(runtimes "libc6 [^\n]*libstdc\\+\\+6[^\n]*\n")
set(same "libtavikddi3 \\(= ${VERSION}\\)")
if(debs OR NOT depends MATCHES
    "^libtavikddi3: ${runtimes}libtavikddi-dev: ${same}, ${runtimes}tavik-ddi-probe: ${same}, ${runtimes}tavik-ddi-emulator: ${same}, ${runtimes}$")
  message(FATAL_ERROR "unexpected packages '${debs}' or Depends:\n${depends}")
endif()

# A rig with the runtime and the probe lists no virtual camera; the emulator package makes it appear. The
# staged probe must load the staged library, and that library find the staged emulator, with no variable set.
function(expect_staged_probe want)
  run_checked("staged probe" "${root}/usr/bin/tavik-ddi-probe" --json)
  string(JSON library GET "${RUN_OUTPUT}" library path)
  string(JSON module GET "${RUN_OUTPUT}" drivers 4 module)
  string(JSON cameras LENGTH "${RUN_OUTPUT}" cameras)
  cmake_path(NORMAL_PATH library) # found through the probe's $ORIGIN/../lib
  cmake_path(NORMAL_PATH module)
  if(NOT "${library} '${module}' ${cameras}" STREQUAL "${root}/${lib}/libtavikDDI.so.3 ${want}")
    message(FATAL_ERROR "staged probe: virtual slot's module and camera count not ${want}:\n${RUN_OUTPUT}")
  endif()
endfunction()
file(MAKE_DIRECTORY "${WORK_DIR}/root")
file(REAL_PATH "${WORK_DIR}/root" root)
foreach(package libtavikddi3 tavik-ddi-probe)
  run_checked("dpkg-deb -x ${package}" dpkg-deb -x "${WORK_DIR}/${package}_${VERSION}_amd64.deb" "${root}")
endforeach()
expect_staged_probe("'' 0")
run_checked("dpkg-deb -x emulator" dpkg-deb -x "${WORK_DIR}/tavik-ddi-emulator_${VERSION}_amd64.deb" "${root}")
expect_staged_probe("'${root}/${lib}/tavik/modules/tavik_virtual.x86_64.umd' 1")

# A core built with find_package and one with pkg-config against the unpacked -dev package: both files locate
# the prefix from their own place, and the loader finds the unpacked library from what the build recorded.
run_checked("dpkg-deb -x dev" dpkg-deb -x "${WORK_DIR}/libtavikddi-dev_${VERSION}_amd64.deb" "${root}")
# The -dev package's compliance checker runs from the package on the packaged emulator.
run_checked("staged compliance checker" "${root}/usr/bin/tavik-ddi-compliance" --only loading
  "${root}/${lib}/tavik/modules/tavik_virtual.x86_64.umd")
run_checked("consumer configure" ${CMAKE_COMMAND} -S "${SOURCE_DIR}/consumer" -B "${WORK_DIR}/consumer"
  -G "${GENERATOR}" "-DCMAKE_PREFIX_PATH=${root}/usr" "-DCMAKE_C_COMPILER=${C_COMPILER}")
run_checked("consumer build" ${CMAKE_COMMAND} --build "${WORK_DIR}/consumer")
foreach(via find_package pkg-config)
  run_checked("${via} consumer" "${WORK_DIR}/consumer/${via}")
  string(REGEX MATCH "^library '([^']+)'\nmodules '([^']+)'\ninit 0, cameras 1\n$" found "${RUN_OUTPUT}")
  set(loaded "${CMAKE_MATCH_1}")
  set(modules "${CMAKE_MATCH_2}")
  cmake_path(NORMAL_PATH loaded)
  cmake_path(NORMAL_PATH modules)
  if(NOT found OR NOT "${loaded} ${modules}" STREQUAL "${root}/${lib}/libtavikDDI.so.3 ${root}/${lib}/tavik/modules")
    message(FATAL_ERROR "${via} consumer did not run against the unpacked kit:\n${RUN_OUTPUT}")
  endif()
endforeach()

# The four entry points at their version and nothing else exported.
run_checked("nm" nm -D --defined-only --with-symbol-versions "${root}/${lib}/libtavikDDI.so.3.1.88")
string(REGEX REPLACE "[0-9a-f]+ " "" exports "${RUN_OUTPUT}")
if(NOT exports STREQUAL "A TAVIK_DDI_3.0\nT tavik_ddi_get_last_error_message@@TAVIK_DDI_3.0\nT tavik_ddi_get_lib_version@@TAVIK_DDI_3.0\nT tavik_ddi_init@@TAVIK_DDI_3.0\nT tavik_ddi_uninit@@TAVIK_DDI_3.0\n")
  message(FATAL_ERROR "unexpected exports:\n${RUN_OUTPUT}")
endif()
# The SONAME, and the run paths that the README describes, in the build tree (no lib/tavik/modules) and installed.
run_checked("readelf" readelf -d "${BUILD_DIR}/lib/libtavikDDI.so.3.1.88" "${BUILD_DIR}/bin/tavik-ddi-probe"
  "${root}/${lib}/libtavikDDI.so.3.1.88" "${root}/usr/bin/tavik-ddi-probe")
set(paths "\\(RUNPATH\\) +Library runpath: \\[\\$ORIGIN/tavik/modules\\].*\\(RPATH\\) +Library rpath: \\[\\$ORIGIN/\\.\\./lib\\]")
if(EXISTS "${BUILD_DIR}/lib/tavik" OR NOT RUN_OUTPUT MATCHES "\\(SONAME\\) +Library soname: \\[libtavikDDI\\.so\\.3\\]\n.*${paths}.*${paths}")
  message(FATAL_ERROR "a build-tree lib/tavik, or unexpected run paths:\n${RUN_OUTPUT}")
endif()

# Every ELF file of the four packages (found by its magic, so that a new binary is covered without a word here)
# passes hardening-check. Its control-flow test reads the IBT and SHSTK property that the linker keeps only when
# every object has it, and Debian 12's C library start files (crt1.o, crti.o, crtn.o) carry none, so no program
# linked there passes it (/bin/ls does not): that test is replaced by the ENDBR64 landing pads that
# -fcf-protection puts at the entry of every function reached through a pointer. gcc's own start files bring two
# of them to any file; the smallest shipped file built with the flag (the emulator) has over 80.
file(GLOB_RECURSE files LIST_DIRECTORIES false "${root}/*")
set(elves "")
foreach(file ${files})
  file(READ "${file}" magic LIMIT 4 HEX)
  if(NOT IS_SYMLINK "${file}" AND magic STREQUAL "7f454c46")
    list(APPEND elves "${file}")
  endif()
endforeach()
list(LENGTH elves count)
if(count LESS 3)
  message(FATAL_ERROR "expected the library, the probe and the emulator among the packages' ELF files: ${elves}")
endif()
foreach(elf ${elves})
  run_checked("hardening-check ${elf} (tools/install-deps.sh all installs devscripts)"
    hardening-check --nocfprotection "${elf}")
  run_checked("objdump ${elf}" objdump -d --no-show-raw-insn "${elf}")
  string(REGEX MATCHALL "\tendbr64" pads "${RUN_OUTPUT}")
  list(LENGTH pads pads)
  if(pads LESS 16)
    message(FATAL_ERROR "${elf} has ${pads} ENDBR64 landing pads: built without -fcf-protection")
  endif()
endforeach()
