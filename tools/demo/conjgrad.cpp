// The conjugate-gradient optimizers in the demo table, and a section that
// runs one of them with each line minimizer.
#include <cstdio>
#include <vector>

#include "demo/demo.h"

namespace demo {
namespace {

template <class Opt>
Opt Configured() {
  Opt opt;
  opt.SetTolerance(1e-8);
  return opt;
}

const Register conjGrad(Optimizer{20, "ConjGrad", false, RunWith(Configured<LxOpt::LxConjGradOpt>())});
const Register fletcherReeves(
    Optimizer{21, "FletcherReeves", false, RunWith(Configured<LxOpt::LxFletcherReevesOpt>())});
const Register ribierePolak(
    Optimizer{22, "RibierePolak", false, RunWith(Configured<LxOpt::LxRibierePolakOpt>())});
const Register hestenesStiefel(
    Optimizer{23, "HestenesStiefel", false, RunWith(Configured<LxOpt::LxHestenesStiefelOpt>())});

LxOpt::LxConjGradOpt WithQuasiNewtonSearch() {
  LxOpt::LxConjGradOpt opt = Configured<LxOpt::LxConjGradOpt>();
  opt.SetLineMinimize(LxOpt::LxQNLineMinimize());
  return opt;
}
const Register conjGradQN(Optimizer{24, "ConjGrad+QNSearch", false, RunWith(WithQuasiNewtonSearch())});

// 100 (y - x^2)^2 + (1 - x)^2 from (-1.2, 1), minimum 0 at (1, 1).
class Valley : public Objective {
 public:
  using Objective::operator();
  unsigned int NumVar() const override { return 2; }
  double operator()(const double* x) override {
    const double a = x[1] - x[0] * x[0], b = 1.0 - x[0];
    return 100.0 * a * a + b * b;
  }
  double operator()(const double* x, double* g) override {
    const double a = x[1] - x[0] * x[0];
    g[0] = -400.0 * a * x[0] - 2.0 * (1.0 - x[0]);
    g[1] = 200.0 * a;
    return (*this)(x);
  }
};

// Swapping the line minimizer: SetLineMinimize keeps its own copy. ConjGrad
// on the curved valley with each of the four.
void LineMinimizers(const Options&) {
  double limits[2] = {0.25, 0.25};
  const LxOpt::LxCGLineMinimize cg;
  const LxOpt::LxQNLineMinimize qn;
  const LxOpt::LxMaxStepLineMinimize maxStep(limits, 2);
  const LxOpt::LxNRLineSearch backtracking;
  const struct {
    const char* name;
    const LxOpt::LxLineMinimize* lm;
  } rows[] = {{"CGLineMinimize", &cg},
              {"QNLineMinimize", &qn},
              {"MaxStepLineMinimize", &maxStep},
              {"NRLineSearch", &backtracking}};
  for (const auto& row : rows) {
    Valley valley;
    LxOpt::LxConjGradOpt opt = Configured<LxOpt::LxConjGradOpt>();
    opt.SetLineMinimize(*row.lm);
    const std::vector<double> start{-1.2, 1.0};
    std::vector<double> x(2);
    const double f = opt(valley, start.data(), x.data());
    std::printf("  ConjGrad + %-20s f = %-12.4g x = (%.6f, %.6f)\n", row.name, f, x[0], x[1]);
  }
}

const Register lineMinimizers(Section{20, "line-minimizers", LineMinimizers});

}  // namespace
}  // namespace demo
