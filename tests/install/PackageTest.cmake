# Builds the Debian package from the build tree and checks what it carries.
# Inputs: BUILD_DIR, WORK_DIR, CPACK, LIBDIR, VERSION.
cmake_minimum_required(VERSION 3.25)

file(REMOVE_RECURSE "${WORK_DIR}")
execute_process(COMMAND "${CPACK}" -G DEB --config "${BUILD_DIR}/CPackConfig.cmake" -B "${WORK_DIR}"
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cpack failed (${rc}):\n${out}\n${err}")
endif()
file(GLOB debs "${WORK_DIR}/*.deb")
list(LENGTH debs count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "expected one .deb in ${WORK_DIR}, found: ${debs}")
endif()

execute_process(COMMAND dpkg-deb -c "${debs}" RESULT_VARIABLE rc OUTPUT_VARIABLE listing)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "dpkg-deb -c failed")
endif()
set(lib "usr/${LIBDIR}")
# Each entry: a regular file ("-" mode) or a link with its target.
set(expected
  "^-[^\n]* \\./${lib}/libtavikDDI\\.so\\.3\\.1\\.88\n"
  "^l[^\n]* \\./${lib}/libtavikDDI\\.so\\.3 -> libtavikDDI\\.so\\.3\\.1\\.88\n"
  "^l[^\n]* \\./${lib}/libtavikDDI\\.so -> libtavikDDI\\.so\\.3\n"
  "^-[^\n]* \\./usr/include/tavik/tavik\\.h\n"
  "^-[^\n]* \\./usr/include/tavik/tavik_types\\.h\n"
  "^-[^\n]* \\./usr/include/tavik/tavik_errors\\.h\n"
  "^-[^\n]* \\./usr/include/tavik/tavik_driver\\.h\n"
  "^-[^\n]* \\./usr/include/tavik/tavik_ddi\\.h\n"
  "^-[^\n]* \\./${lib}/pkgconfig/tavikddi\\.pc\n"
  "^-[^\n]* \\./${lib}/cmake/TavikDDI/TavikDDIConfig\\.cmake\n"
  "^-[^\n]* \\./${lib}/cmake/TavikDDI/TavikDDIConfigVersion\\.cmake\n"
  "^-[^\n]* \\./${lib}/cmake/TavikDDI/TavikDDITargets\\.cmake\n"
  "^-rwxr-xr-x[^\n]* \\./usr/bin/tavik-ddi-probe\n"
  "^-[^\n]* \\./${lib}/tavik/modules/tavik_virtual\\.x86_64\\.umd\n")
string(REPLACE "\n" ";" lines "${listing}")
foreach(pattern IN LISTS expected)
  set(found FALSE)
  foreach(line IN LISTS lines)
    if("${line}\n" MATCHES "${pattern}")
      set(found TRUE)
      break()
    endif()
  endforeach()
  if(NOT found)
    message(FATAL_ERROR "package lacks an entry matching ${pattern}\n${listing}")
  endif()
endforeach()
foreach(line IN LISTS lines)
  if(line MATCHES " \\./.*(test|bench|fixture|\\.a$)")
    message(FATAL_ERROR "package carries a file that is not part of the kit: ${line}")
  endif()
endforeach()

execute_process(COMMAND dpkg-deb -f "${debs}" Package Version Maintainer Depends Description
  OUTPUT_VARIABLE fields)
foreach(pattern "Package: tavik-ddi\n" "Version: ${VERSION}\n" "Maintainer: [^\n]+<[^\n]+@[^\n]+>\n"
                "Depends: [^\n]*libc6" "Description: [^\n]+")
  if(NOT fields MATCHES "${pattern}")
    message(FATAL_ERROR "control fields do not match '${pattern}':\n${fields}")
  endif()
endforeach()
message(STATUS "package ${debs} is complete")
