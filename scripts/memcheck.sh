#!/usr/bin/env bash
# Runs the test suite of a build under valgrind memcheck (ctest -T memcheck):
# a test fails on any memory error or definite/indirect leak. Logs go to
# <build>/Testing/Temporary/MemoryChecker.<test number>.log.
# Usage: scripts/memcheck.sh <build dir> <jobs>
#
# Not run under valgrind, and why:
#  - python_tests: the interpreter and NumPy, not a program of ours, and
#    minutes under valgrind; the module's C++ is covered by the C++ tests.
#  - install_and_find_package: runs cmake and the compiler, not our code.
#  - the MPI tests (mpi_*, example_mpi_*): the test script would put valgrind
#    on bash, not on the ranks, and Open MPI's runtime keeps memory to the end
#    of the process by design.
#  - the suites of test_allocations: it replaces the malloc family and
#    operator new to count allocations, which valgrind replaces as well.
set -euo pipefail
build=${1:?build dir}
jobs=${2:-2}
cd "$build"
cat > DartConfiguration.tcl <<CONF
MemoryCheckCommand: $(command -v valgrind)
MemoryCheckCommandOptions: --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite,indirect
CONF
exclude='^(python_tests|install_and_find_package|mpi_.*|example_mpi_.*)$'
if [ -x tests/test_allocations ]; then
  suites=$(tests/test_allocations --gtest_list_tests | sed -n 's/^\([^ ][^ ]*\)\.\( .*\)\{0,1\}$/\1/p' | paste -sd'|')
  [ -n "$suites" ] && exclude="$exclude|^($suites)\\."
fi
ctest -T memcheck -j"$jobs" --output-on-failure -E "$exclude"
