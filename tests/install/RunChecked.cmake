# For the install and package checks: steps that must succeed, in an environment where nothing from the
# caller's shell steers the library.
cmake_minimum_required(VERSION 3.25)
function(run_checked what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  set(RUN_OUTPUT "${out}" PARENT_SCOPE)
endfunction()
foreach(var TAVIK_UMD_PATH TAVIK_DDI_LOG_FILE TAVIK_DDI_LOG_LEVEL TAVIK_VIRTUAL_CAMERAS
            LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH)
  unset(ENV{${var}})
endforeach()
