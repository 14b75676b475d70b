// Run under mpirun with 2 or more ranks. Calls whose shape differs between
// ranks are reported on every rank and return false without hanging; a
// search after them agrees with the one-process search bit for bit on every
// rank. Exit status 0 when every check held on this rank.
#include <cstdio>
#include <string>
#include <vector>

#include "lxopt/mpi.h"
#include "support/problems.h"

namespace {

using namespace LxOpt;
using namespace LxOpt::LxMinfinder;
using Vec = std::vector<double>;
using Texts = std::vector<std::string>;

int rank = 0, size = 1, failures = 0;

void Check(bool ok, const char* what) {
  if (ok) return;
  ++failures;
  std::fprintf(stderr, "rank %d: FAILED %s\n", rank, what);
}

// Setup with this rank's objective size and bounds, then Optimize: both false
// everywhere, with message then the refusal of Optimize on this rank.
void ExpectSearchRefused(const char* name, unsigned int n, const Vec& lower, const Vec& upper,
                         const char* message) {
  lxtest::DiagonalQuadratic func(Vec(n, 1.0), Vec(n, 0.5));  // one well
  GetRandomVariablesGeneral generator;
  LxMpiMinfinder finder;
  lxtest::MessageCapture capture;
  const bool setUp = finder.Setup(func, &generator, lower, upper);  // both collective
  Check(!setUp && !finder.Optimize(), name);
  Check(capture.Texts() == Texts{message, "You have to setup the minfinder object first!"}, name);
}

// A Hessian with this rank's objective size and output: false everywhere,
// message on this rank, the output untouched.
void ExpectHessianRefused(const char* name, unsigned int n, bool null, const char* message) {
  lxtest::DiagonalQuadratic func(Vec(n, 1.0), Vec(n, 0.5));  // one well
  Vec x{0.5, -0.5, 0.25}, hessian(6, 0.0);
  lxtest::MessageCapture capture;
  Check(!LxMpiNumericHessian(func, x.data(), null ? nullptr : hessian.data()), name);
  Check(capture.Texts() == Texts{message} && hessian == Vec(6, 0.0), name);
}

// The distributed search after the refusals equals the one-process search.
void WellFormedSearchMatchesOneProcess() {
  lxtest::DiagonalQuadratic func(Vec(3, 1.0), Vec(3, 0.5));
  const Vec lower(3, -2.0), upper(3, 2.0);
  Vec coords, values, refCoords, refValues;
  GetRandomVariablesGeneral generator, refGenerator;
  LxMpiMinfinder finder;
  LxOpt::LxMinfinder::LxMinfinder reference;
  finder.SetSeed(11);
  reference.SetSeed(11);
  const bool setUp = finder.Setup(func, rank == 0 ? &generator : nullptr, lower, upper);
  Check(setUp && finder.Optimize() && finder.GetMinimums(coords, values), "search");
  reference.Setup(func, &refGenerator, lower, upper);
  reference.Optimize();
  reference.GetMinimums(refCoords, refValues);
  Check(!values.empty() && coords == refCoords && values == refValues,
        "minima equal to the one-process minima");
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &size);
  const bool last = rank == size - 1;
  const char* const shape =
      "LxMpiMinfinder: the ranks disagree on the number of variables or the length of the bounds!";
  ExpectSearchRefused("different NumVar", last ? 3 : 2, Vec(2, -2.0), Vec(2, 2.0), shape);
  ExpectSearchRefused("bounds too long on one rank", 2, Vec(last ? 3 : 2, -2.0), Vec(2, 2.0),
                      shape);
  ExpectSearchRefused(
      "lower above upper on one rank", 2, Vec{-2.0, last ? 3.0 : -2.0}, Vec(2, 2.0),
      last ? "The values of lower bounds should be obviously lower than the upper bounds!"
           : "LxMpiMinfinder: Setup failed on another rank!");
  ExpectHessianRefused("Hessian, different NumVar", last ? 3 : 2, false,
                       "LxMpiNumericHessian: the ranks disagree on the number of variables!");
  ExpectHessianRefused("Hessian, null on one rank", 3, last, "Hessian array is not allocated");
  WellFormedSearchMatchesOneProcess();
  MPI_Finalize();
  if (failures == 0 && rank == 0)
    std::printf("malformed calls: all checks held on %d ranks\n", size);
  return failures == 0 ? 0 : 1;
}
