// Simulated annealing on a surface of many wells, against BFGS alone from
// the same start.
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "demo/demo.h"

namespace demo {
namespace {

// f = 0.2 (x^2 + y^2) + 2 (2 - cos(pi x) - cos(pi y)): wells near every
// point of even integers, the lowest (0) at the origin; neighbouring wells
// are separated by barriers of about 4 kcal/mol.
class EggCrate : public Objective {
 public:
  using Objective::operator();
  unsigned int NumVar() const override { return 2; }
  double operator()(const double* x) override {
    return 0.2 * (x[0] * x[0] + x[1] * x[1]) +
           2.0 * (2.0 - std::cos(kPi * x[0]) - std::cos(kPi * x[1]));
  }
  double operator()(const double* x, double* g) override {
    for (int i = 0; i < 2; ++i) g[i] = 0.4 * x[i] + 2.0 * kPi * std::sin(kPi * x[i]);
    return (*this)(x);
  }

 private:
  static constexpr double kPi = 3.14159265358979323846;
};

// LxSAOpt leaves its two getters to the user.
class Annealer : public LxOpt::LxSAOpt {
 public:
  using LxOpt::LxSAOpt::LxSAOpt;
  unsigned int GetIterLimit() const override { return EvaluationLimit(); }
  double GetTolerance() const override { return Tolerance(); }
};

void AnnealEggCrate(const Options&) {
  EggCrate f;
  const std::vector<double> start = {4.0, -4.0};
  std::vector<double> local(2), global(2);
  LxOpt::LxBFGSOpt bfgs;
  const double fLocal = bfgs(f, start.data(), local.data());

  LxOpt::LxMessageSink previous = LxOpt::LxSetMessageSink(
      [](LxOpt::LxMessageLevel, const std::string& text) { std::printf("  %s\n", text.c_str()); });
  Annealer sa(2000.0);
  sa.SetIterLimit(20000);
  std::fflush(stdout);
  const double fGlobal = sa(f, start.data(), global.data());
  LxOpt::lxout.flush();
  LxOpt::LxSetMessageSink(previous);
  std::printf("  start (%g, %g): BFGS alone f = %.6f at (%.4f, %.4f)\n", start[0], start[1], fLocal,
              local[0], local[1]);
  std::printf(
      "  annealing then BFGS:  f = %.6f at (%.4f, %.4f) (global minimum 0 at the "
      "origin)\n",
      fGlobal, global[0], global[1]);
}

const Register section(Section{70, "annealing", AnnealEggCrate});

}  // namespace
}  // namespace demo
