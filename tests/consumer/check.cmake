# Installs the build tree into a scratch prefix, then configures, builds and
# runs a separate project that uses find_package(LxOpt).
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
  RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
foreach(step
    "${CMAKE_COMMAND};-S;${SOURCE_DIR}/tests/consumer;-B;${WORK_DIR}/build;-G;${GENERATOR};-DCMAKE_PREFIX_PATH=${prefix};-DCMAKE_BUILD_TYPE=Release"
    "${CMAKE_COMMAND};--build;${WORK_DIR}/build"
    "${WORK_DIR}/build/consumer")
  execute_process(COMMAND ${step} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(rc)
    message(FATAL_ERROR "step failed (${rc}): ${step}\n${out}\n${err}")
  endif()
endforeach()
message(STATUS "${out}")
