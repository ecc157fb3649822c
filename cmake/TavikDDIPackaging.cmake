# One Debian package with everything that `cmake --install` lays out.
set(CPACK_GENERATOR "DEB")
set(CPACK_PACKAGE_NAME "tavik-ddi")
set(CPACK_PACKAGE_VENDOR "Tavik")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Device-driver interface layer of the Tavik scientific-camera kit")
set(CPACK_PACKAGE_DESCRIPTION
  "libtavikDDI.so.3 finds every driver through which cameras can be reached (user-mode driver modules and kernel device nodes), builds one camera list and gives the camera-control core one table of operations per camera. The package also carries the public C headers, pkg-config and CMake package files, the tavik-ddi-probe diagnostic tool and the camera emulator module.")
set(CPACK_PACKAGE_CONTACT "Tavik DDI maintainers <tavik-ddi@localhost>")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
set(CPACK_DEBIAN_PACKAGE_SECTION "libs")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Dependencies come from what the binaries link (libc6, libstdc++6, libgcc-s1).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
# Debug information stays in the build tree; the package ships stripped binaries.
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
include(CPack)
