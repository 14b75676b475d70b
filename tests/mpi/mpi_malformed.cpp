// Run under mpirun with 2 or more ranks. Calls whose shape differs between
// ranks are reported on every rank and return false without hanging; the
// same objects then work, and agree with the one-process functions bit for
// bit on every rank. Exit status 0 when every check held on this rank.
#include <cstdio>
#include <string>
#include <vector>

#include "lxopt/lxopt.h"
#include "lxopt/mpi.h"

namespace {

using namespace LxOpt;
using namespace LxOpt::LxMinfinder;
using Vec = std::vector<double>;
using Texts = std::vector<std::string>;

int rank = 0, size = 1, failures = 0;

// sum_i (x_i^2 - 1)^2 + 0.1 2^i x_i: 2^n wells of different depths.
struct Wells : LxFunc1 {
  explicit Wells(unsigned int n) : n(n) {}
  using LxFunc1::operator();
  unsigned int NumVar() const override { return n; }
  double operator()(const double* x) override {
    Vec g(n);
    return (*this)(x, g.data());
  }
  double operator()(const double* x, double* g) override {
    double f = 0.0;
    for (unsigned int i = 0; i < n; ++i) {
      const double q = x[i] * x[i] - 1.0;
      f += q * q + 0.1 * (1u << i) * x[i];
      g[i] = 4.0 * x[i] * q + 0.1 * (1u << i);
    }
    return f;
  }
  std::vector<LxFComponent> GetFComponents(const double*) override { return {}; }
  unsigned int n;
};

struct Capture {
  Capture() {
    previous =
        LxSetMessageSink([this](LxMessageLevel, const std::string& t) { texts.push_back(t); });
  }
  ~Capture() { LxSetMessageSink(previous); }
  Texts texts;
  LxMessageSink previous;
};

void Check(bool ok, const char* what) {
  if (ok) return;
  ++failures;
  std::fprintf(stderr, "rank %d: FAILED %s\n", rank, what);
}

const char* const kShape =
    "LxMpiMinfinder: the ranks disagree on the number of variables or the length of the bounds!";
const char* const kNotSetUp = "You have to setup the minfinder object first!";

// Setup with this rank's objective size and bounds, then Optimize: both false
// everywhere; this rank's messages as expected.
void ExpectRefused(const char* name, unsigned int n, const Vec& lower, const Vec& upper,
                   const Texts& expected) {
  Wells func(n);
  GetRandomVariablesGeneral generator;
  LxMpiMinfinder finder;
  Capture capture;
  Check(!finder.Setup(func, &generator, lower, upper), name);
  Check(!finder.Optimize(), name);
  Texts all = expected;
  all.push_back(kNotSetUp);
  Check(capture.texts == all, name);
}

void MalformedSetups() {
  const bool last = rank == size - 1;
  ExpectRefused("different NumVar", last ? 3 : 2, Vec(2, -2.0), Vec(2, 2.0), {kShape});
  ExpectRefused("bounds too long on one rank", 2, Vec(last ? 3 : 2, -2.0), Vec(2, 2.0), {kShape});
  ExpectRefused(
      "lower above upper on one rank", 2, Vec{-2.0, last ? 3.0 : -2.0}, Vec(2, 2.0),
      {last ? "The values of lower bounds should be obviously lower than the upper bounds!"
            : "LxMpiMinfinder: Setup failed on another rank!"});
}

void MalformedHessians() {
  const bool last = rank == size - 1;
  Vec x{0.5, -0.5, 0.25}, hessian(6, 0.0);
  {
    Wells func(last ? 3 : 2);
    Capture capture;
    Check(!LxMpiNumericHessian(func, x.data(), hessian.data()), "Hessian, different NumVar");
    Check(capture.texts ==
              Texts{"LxMpiNumericHessian: the ranks disagree on the number of variables!"},
          "Hessian, different NumVar: message");
  }
  {
    Wells func(3);
    Capture capture;
    Check(!LxMpiNumericHessian(func, x.data(), last ? nullptr : hessian.data()), "Hessian, null");
    Check(capture.texts == Texts{"Hessian array is not allocated"}, "Hessian, null: message");
  }
  Check(hessian == Vec(6, 0.0), "refused Hessians leave the output alone");
}

// After the refusals: the distributed search and Hessian equal the
// one-process ones on every rank, bit for bit.
void WellFormedCallsMatchOneProcess() {
  Wells func(3);
  const Vec lower(3, -2.0), upper(3, 2.0);
  Vec coords, values, refCoords, refValues;
  {
    GetRandomVariablesGeneral generator;
    LxMpiMinfinder finder;
    finder.SetSeed(11);
    Check(finder.Setup(func, rank == 0 ? &generator : nullptr, lower, upper), "setup");
    Check(finder.Optimize(), "optimize");
    Check(finder.GetMinimums(coords, values), "minima");
  }
  {
    GetRandomVariablesGeneral generator;
    LxOpt::LxMinfinder::LxMinfinder finder;
    finder.SetSeed(11);
    finder.Setup(func, &generator, lower, upper);
    finder.Optimize();
    finder.GetMinimums(refCoords, refValues);
  }
  Check(values.size() == 8, "all eight wells");
  Check(coords == refCoords && values == refValues, "minima equal the one-process minima");

  std::vector<GradDiff> records;
  for (unsigned int i = 0; i < 3; ++i)
    records.push_back(DifferentialGradients(func, coords.data(), i));
  Vec hessian(6, 1.0), reference(6, 1.0);
  NumericHessian(records, reference.data());
  Check(LxMpiNumericHessian(func, coords.data(), hessian.data()), "Hessian");
  Check(hessian == reference, "Hessian equals the record form");
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &size);
  MalformedSetups();
  MalformedHessians();
  WellFormedCallsMatchOneProcess();
  MPI_Finalize();
  if (failures == 0 && rank == 0)
    std::printf("malformed calls: all checks held on %d ranks\n", size);
  return failures == 0 ? 0 : 1;
}
