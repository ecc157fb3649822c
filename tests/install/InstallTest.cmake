# Installs the build tree into a staging prefix, where two tiny cores built as
# an outsider would must run against the installed library and emulator.
# Inputs: BUILD_DIR, SOURCE_DIR, WORK_DIR, LIBDIR, C_COMPILER, C_FLAGS, LINKER_FLAGS, GENERATOR.
include(${CMAKE_CURRENT_LIST_DIR}/RunChecked.cmake)

function(expect_frames what)
  run_checked("${what}" ${ARGN})
  string(REGEX MATCH "consumer: library '([^']+)'\nconsumer: camera 'tavikSW_0'\n" found "${RUN_OUTPUT}")
  file(REAL_PATH "${CMAKE_MATCH_1}" loaded)
  if(NOT found OR NOT loaded STREQUAL "${LIB}/libtavikDDI.so.3.1.88")
    message(FATAL_ERROR "${what} did not run against the installed library and emulator:\n${RUN_OUTPUT}")
  endif()
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}/stage")
file(REAL_PATH "${WORK_DIR}/stage" STAGE)
set(LIB "${STAGE}/${LIBDIR}")
# A plain install leaves the emulator out; it comes only when asked for.
run_checked("cmake --install" ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${STAGE}")
if(EXISTS "${LIB}/tavik/modules")
  message(FATAL_ERROR "a plain install carries the emulator module")
endif()
run_checked("cmake --install --component emulator"
  ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${STAGE}" --component emulator)

# A core built with find_package and one built with pkg-config; the loader must
# find the installed library from what the build recorded, with no variable.
foreach(via find_package pkg-config)
  run_checked("${via} consumer configure" ${CMAKE_COMMAND} -S "${SOURCE_DIR}/consumer"
    -B "${WORK_DIR}/${via}" -G "${GENERATOR}" -DVIA=${via} "-DCMAKE_PREFIX_PATH=${STAGE}"
    "-DCMAKE_C_COMPILER=${C_COMPILER}" "-DCMAKE_C_FLAGS=${C_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${LINKER_FLAGS}")
  run_checked("${via} consumer build" ${CMAKE_COMMAND} --build "${WORK_DIR}/${via}")
  expect_frames("${via} consumer" "${WORK_DIR}/${via}/consumer")
endforeach()
