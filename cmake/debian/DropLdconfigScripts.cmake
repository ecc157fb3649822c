# Run by CPack after it wrote the packages (CPACK_POST_BUILD_SCRIPTS).
# CPack gives a package with a library in /usr/lib postinst and postrm scripts
# that call ldconfig. Debian's library packages ship no maintainer scripts and
# activate libc's ldconfig trigger instead (set in TavikDDIPackaging.cmake), so
# such a package is rebuilt without the two scripts.
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  set(tree "${deb}.tree")
  file(REMOVE_RECURSE "${tree}")
  execute_process(COMMAND dpkg-deb --raw-extract "${deb}" "${tree}" COMMAND_ERROR_IS_FATAL ANY)
  if(EXISTS "${tree}/DEBIAN/postinst")
    # Only CPack's own scripts may go: anything else would be lost.
    file(READ "${tree}/DEBIAN/postinst" postinst)
    file(READ "${tree}/DEBIAN/postrm" postrm)
    string(REGEX REPLACE "[ \t\n]+" " " scripts "${postinst}|${postrm}")
    if(NOT scripts STREQUAL "#!/bin/sh set -e if [ \"$1\" = \"configure\" ]; then ldconfig fi |#!/bin/sh set -e if [ \"$1\" = \"remove\" ]; then ldconfig fi ")
      message(FATAL_ERROR "${deb}: maintainer scripts do more than call ldconfig: '${scripts}'")
    endif()
    file(REMOVE "${tree}/DEBIAN/postinst" "${tree}/DEBIAN/postrm")
    execute_process(COMMAND dpkg-deb --root-owner-group --build "${tree}" "${deb}"
      OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  endif()
  file(REMOVE_RECURSE "${tree}")
endforeach()
