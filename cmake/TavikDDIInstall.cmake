# What `cmake --install` lays out, in the four components that become the four
# Debian packages (cmake/TavikDDIPackaging.cmake):
#   runtime   lib/libtavikDDI.so.3 -> .so.3.1.88
#   dev       include/tavik/*.h, lib/libtavikDDI.so, lib/pkgconfig/tavikddi.pc,
#             lib/cmake/TavikDDI/ (find_package(TavikDDI))
#   probe     bin/tavik-ddi-probe, share/man/man1/tavik-ddi-probe.1.gz
#   dev       also bin/tavik-ddi-compliance and its manual page, for module authors
#   emulator  lib/tavik/modules/tavik_virtual.x86_64.umd, only when asked for
#             (`--component emulator`): the installed library finds it with no
#             variable set, and a rig must not list a virtual camera it never chose.
# Test programs, fixture modules and benchmarks have no install rules on purpose.
include(CMakePackageConfigHelpers)

set(TAVIK_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/TavikDDI)
set(TAVIK_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
# Shipped modules get a folder of their own: TAVIK_UMD_PATH can point at it
# without the library scanning every other file of the library folder.
set(TAVIK_INSTALL_MODULEDIR ${CMAKE_INSTALL_LIBDIR}/tavik/modules)

# Without TAVIK_UMD_PATH the library asks the dynamic loader for the known
# module names; the installed library's RUNPATH makes the loader look in the
# installed modules folder, so an installed kit finds the modules installed
# with it.
file(RELATIVE_PATH TAVIK_LIB_TO_MODULES
  /prefix/${CMAKE_INSTALL_LIBDIR} /prefix/${TAVIK_INSTALL_MODULEDIR})
# The build-tree copy carries the same RUNPATH, which finds nothing there (the
# build tree has no lib/tavik/modules: in the build tree, TAVIK_UMD_PATH or the
# tests decide where modules come from). A separate build path would be padded
# by CMake with empty entries, which the loader reads as the current directory.
set_target_properties(tavikDDI PROPERTIES
  INSTALL_RPATH "$ORIGIN/${TAVIK_LIB_TO_MODULES}"
  BUILD_WITH_INSTALL_RPATH ON)

# The target already carries its installed include folder in its interface.
install(TARGETS tavikDDI EXPORT TavikDDITargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/tavik
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
  FILES_MATCHING PATTERN "*.h")

if(TARGET tavik_virtual)
  install(TARGETS tavik_virtual LIBRARY DESTINATION ${TAVIK_INSTALL_MODULEDIR}
    COMPONENT emulator EXCLUDE_FROM_ALL)
  # The emulator's request and frame records, for cores and tests that drive it.
  install(FILES ${PROJECT_SOURCE_DIR}/modules/virtual/tavik_virtual.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavik COMPONENT dev)
endif()
if(TARGET tavik-ddi-probe)
  install(TARGETS tavik-ddi-probe RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT probe)
  install(FILES ${PROJECT_BINARY_DIR}/tools/tavik-ddi-probe/tavik-ddi-probe.1.gz
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT probe)
endif()

# The compliance checker goes with the headers: module authors install the
# -dev package to build a module, and check it with the same package.
if(TARGET tavik-ddi-compliance)
  install(TARGETS tavik-ddi-compliance RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT dev)
  install(FILES ${PROJECT_BINARY_DIR}/tools/tavik-ddi-compliance/tavik-ddi-compliance.1.gz
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT dev)
endif()

# CMake package: find_package(TavikDDI) gives TavikDDI::tavikDDI and
# TavikDDI_MODULES_DIR. Paths are relative to the package file, so an installed
# tree can be moved (a staging prefix, a package root) and still work.
install(EXPORT TavikDDITargets
  NAMESPACE TavikDDI::
  FILE TavikDDITargets.cmake
  DESTINATION ${TAVIK_INSTALL_CMAKEDIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/TavikDDIConfig.cmake.in
  ${CMAKE_BINARY_DIR}/cmake/TavikDDIConfig.cmake
  INSTALL_DESTINATION ${TAVIK_INSTALL_CMAKEDIR}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR TAVIK_INSTALL_MODULEDIR)
# The SONAME changes with the major version only; so does compatibility.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/cmake/TavikDDIConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_BINARY_DIR}/cmake/TavikDDIConfig.cmake
  ${CMAKE_BINARY_DIR}/cmake/TavikDDIConfigVersion.cmake
  DESTINATION ${TAVIK_INSTALL_CMAKEDIR} COMPONENT dev)

# pkg-config: the prefix is found from the .pc file's own place for the same reason.
file(RELATIVE_PATH TAVIK_PC_TO_PREFIX
  /prefix/${TAVIK_INSTALL_PKGCONFIGDIR} /prefix)
string(REGEX REPLACE "/$" "" TAVIK_PC_TO_PREFIX "${TAVIK_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/tavikddi.pc.in
  ${CMAKE_BINARY_DIR}/cmake/tavikddi.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/cmake/tavikddi.pc DESTINATION ${TAVIK_INSTALL_PKGCONFIGDIR}
  COMPONENT dev)
