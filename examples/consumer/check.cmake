# Installs the build tree into a scratch prefix, then configures, builds and
# runs a separate project that uses find_package(LxOpt), and builds and runs
# the same program with the flags pkg-config reads from lxopt.pc.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
  RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
foreach(step
    "${CMAKE_COMMAND};-S;${CMAKE_CURRENT_LIST_DIR};-B;${WORK_DIR}/build;-G;${GENERATOR};-DCMAKE_PREFIX_PATH=${prefix};-DCMAKE_BUILD_TYPE=Release"
    "${CMAKE_COMMAND};--build;${WORK_DIR}/build"
    "${WORK_DIR}/build/consumer")
  execute_process(COMMAND ${step} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(rc)
    message(FATAL_ERROR "step failed (${rc}): ${step}\n${out}\n${err}")
  endif()
endforeach()
message(STATUS "${out}")

# The same program built with the compiler flags pkg-config gives for the
# installed lxopt.pc (prefix redirected to the scratch install).
if(NOT PKG_CONFIG OR NOT CXX)
  message(STATUS "pkg-config build skipped: no pkg-config or compiler given")
  return()
endif()
# lxopt.pc names the configured prefix; a copy names the scratch one instead
# (--define-variable would redirect the prefix of eigen3.pc as well).
file(STRINGS ${prefix}/${LIBDIR}/pkgconfig/lxopt.pc lines)
list(FILTER lines EXCLUDE REGEX "^prefix=")
list(JOIN lines "\n" body)
file(WRITE ${WORK_DIR}/pkgconfig/lxopt.pc "prefix=${prefix}\n${body}\n")
set(pc ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${WORK_DIR}/pkgconfig ${PKG_CONFIG})
execute_process(COMMAND ${pc} --cflags --libs lxopt
  RESULT_VARIABLE rc OUTPUT_VARIABLE flags ERROR_VARIABLE err OUTPUT_STRIP_TRAILING_WHITESPACE)
if(rc)
  message(FATAL_ERROR "pkg-config --cflags --libs lxopt failed (${rc}): ${err}")
endif()
execute_process(COMMAND ${pc} --variable=libdir lxopt
  OUTPUT_VARIABLE libdir OUTPUT_STRIP_TRAILING_WHITESPACE)
separate_arguments(flags UNIX_COMMAND "${flags}")
foreach(step
    "${CXX};-std=c++17;${CMAKE_CURRENT_LIST_DIR}/main.cpp;-o;${WORK_DIR}/consumer-pc;${flags};-Wl,-rpath,${libdir}"
    "${WORK_DIR}/consumer-pc")
  execute_process(COMMAND ${step} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(rc)
    message(FATAL_ERROR "pkg-config step failed (${rc}): ${step}\n${out}\n${err}")
  endif()
endforeach()
message(STATUS "pkg-config: ${out}")
