# What `cmake --install` lays out, and what the Debian package carries:
#   lib/libtavikDDI.so -> .so.3 -> .so.3.1.88, include/tavik/*.h,
#   lib/pkgconfig/tavikddi.pc, lib/cmake/TavikDDI/ (find_package(TavikDDI)),
#   bin/tavik-ddi-probe, lib/tavik/modules/tavik_virtual.x86_64.umd.
# Test programs, fixture modules and benchmarks have no install rules on purpose.
include(CMakePackageConfigHelpers)

set(TAVIK_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/TavikDDI)
set(TAVIK_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
# Shipped modules get a folder of their own: TAVIK_UMD_PATH can point at it
# without the library scanning every other file of the library folder.
set(TAVIK_INSTALL_MODULEDIR ${CMAKE_INSTALL_LIBDIR}/tavik/modules)

# Without TAVIK_UMD_PATH the library asks the dynamic loader for the known
# module names; the installed library's RUNPATH makes the loader look in the
# installed modules folder, so an installed kit finds its own modules. Only the
# installed copy gets it: in the build tree, tests decide where modules come from.
file(RELATIVE_PATH TAVIK_LIB_TO_MODULES
  /prefix/${CMAKE_INSTALL_LIBDIR} /prefix/${TAVIK_INSTALL_MODULEDIR})
# The build-tree copy carries the same relative path (there is no
# lib/tavik/modules in the build tree, so it finds nothing there): a separate
# build path would be padded by CMake with empty entries, which the loader
# reads as the current directory.
set_target_properties(tavikDDI PROPERTIES
  INSTALL_RPATH "$ORIGIN/${TAVIK_LIB_TO_MODULES}"
  BUILD_WITH_INSTALL_RPATH ON)

# The target already carries its installed include folder in its interface.
install(TARGETS tavikDDI EXPORT TavikDDITargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/tavik
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")

if(TARGET tavik_virtual)
  install(TARGETS tavik_virtual LIBRARY DESTINATION ${TAVIK_INSTALL_MODULEDIR})
  # The emulator's request and frame records, for cores and tests that drive it.
  install(FILES ${PROJECT_SOURCE_DIR}/modules/virtual/tavik_virtual.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavik)
endif()
if(TARGET tavik-ddi-probe)
  install(TARGETS tavik-ddi-probe RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# CMake package: find_package(TavikDDI) gives TavikDDI::tavikDDI and
# TavikDDI_MODULES_DIR. Paths are relative to the package file, so an installed
# tree can be moved (a staging prefix, a package root) and still work.
install(EXPORT TavikDDITargets
  NAMESPACE TavikDDI::
  FILE TavikDDITargets.cmake
  DESTINATION ${TAVIK_INSTALL_CMAKEDIR})
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
  DESTINATION ${TAVIK_INSTALL_CMAKEDIR})

# pkg-config: the prefix is found from the .pc file's own place for the same reason.
file(RELATIVE_PATH TAVIK_PC_TO_PREFIX
  /prefix/${TAVIK_INSTALL_PKGCONFIGDIR} /prefix)
string(REGEX REPLACE "/$" "" TAVIK_PC_TO_PREFIX "${TAVIK_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/tavikddi.pc.in
  ${CMAKE_BINARY_DIR}/cmake/tavikddi.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/cmake/tavikddi.pc DESTINATION ${TAVIK_INSTALL_PKGCONFIGDIR})
