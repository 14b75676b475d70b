# Installs the build tree into a scratch prefix, then builds and runs a
# separate program against it twice: with find_package(LxOpt) (MPI hidden
# from the consumer, and with the component mpi when the build has it), and
# with the flags pkg-config reads from the installed lxopt.pc, used as
# installed. Then moves the whole install elsewhere and does it again: both
# packages find their prefix from their own location.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
  RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()

function(run_steps label)
  foreach(step ${ARGN})
    string(REPLACE "|" ";" command "${step}")
    execute_process(COMMAND ${command} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(rc)
      message(FATAL_ERROR "${label}: step failed (${rc}): ${command}\n${out}\n${err}")
    endif()
  endforeach()
  message(STATUS "${label}: ${out}")
endfunction()

# The CMake package from `root`; extra: more -D arguments.
function(check_cmake root tag)
  set(build ${WORK_DIR}/build-${tag})
  run_steps("find_package (${tag})"
    "${CMAKE_COMMAND}|-S|${CMAKE_CURRENT_LIST_DIR}|-B|${build}|-G|${GENERATOR}|-DCMAKE_PREFIX_PATH=${root}|-DCMAKE_BUILD_TYPE=Release|${ARGN}"
    "${CMAKE_COMMAND}|--build|${build}"
    "${build}/consumer")
endfunction()

# The installed lxopt.pc as the README uses it: PKG_CONFIG_PATH to find it,
# LD_LIBRARY_PATH to run the program.
function(check_pkg_config root tag)
  if(NOT PKG_CONFIG OR NOT CXX)
    message(STATUS "pkg-config build skipped: no pkg-config or compiler given")
    return()
  endif()
  set(pc ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${root}/${LIBDIR}/pkgconfig ${PKG_CONFIG})
  execute_process(COMMAND ${pc} --cflags --libs lxopt
    RESULT_VARIABLE rc OUTPUT_VARIABLE flags ERROR_VARIABLE err OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(rc)
    message(FATAL_ERROR "pkg-config --cflags --libs lxopt failed (${rc}): ${err}")
  endif()
  execute_process(COMMAND ${pc} --variable=libdir lxopt
    OUTPUT_VARIABLE libdir OUTPUT_STRIP_TRAILING_WHITESPACE)
  get_filename_component(libdir "${libdir}" REALPATH)
  if(NOT libdir STREQUAL "${root}/${LIBDIR}")
    message(FATAL_ERROR "lxopt.pc names libdir ${libdir}, not ${root}/${LIBDIR}")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  list(JOIN flags "|" flags)
  run_steps("pkg-config (${tag})"
    "${CXX}|-std=c++17|${CMAKE_CURRENT_LIST_DIR}/main.cpp|-o|${WORK_DIR}/consumer-pc-${tag}|${flags}"
    "${CMAKE_COMMAND}|-E|env|LD_LIBRARY_PATH=${libdir}|${WORK_DIR}/consumer-pc-${tag}")
endfunction()

function(check_install root tag)
  check_cmake(${root} ${tag} -DCMAKE_DISABLE_FIND_PACKAGE_MPI=TRUE)
  if(EXISTS ${root}/${LIBDIR}/cmake/LxOpt/LxOptMpiTargets.cmake)
    check_cmake(${root} ${tag}-mpi -DLXOPT_WANT_MPI=ON)
  endif()
  check_pkg_config(${root} ${tag})
endfunction()

check_install(${prefix} installed)
set(moved ${WORK_DIR}/moved/elsewhere)
file(MAKE_DIRECTORY ${WORK_DIR}/moved)
file(RENAME ${prefix} ${moved})
check_install(${moved} moved)
