// Conjugate gradients with the quasi-Newton search in the demo table, and a
// section that runs them with each line minimizer.
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

LxOpt::LxConjGradOpt WithQuasiNewtonSearch() {
  LxOpt::LxConjGradOpt opt = Configured<LxOpt::LxConjGradOpt>();
  opt.SetLineMinimize(LxOpt::LxQNLineMinimize());
  return opt;
}
const Register conjGradQN(Optimizer{24, "ConjGrad+QNSearch", false,
                                    RunWith(WithQuasiNewtonSearch())});

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
  const Problem* valley = FindProblem("curved valley");
  if (valley == nullptr) return;
  for (const auto& row : rows) {
    std::unique_ptr<LxOpt::LxFunc2> objective = valley->make();
    LxOpt::LxConjGradOpt opt = Configured<LxOpt::LxConjGradOpt>();
    opt.SetLineMinimize(*row.lm);
    std::vector<double> x(2);
    const double f = opt(*objective, valley->start.data(), x.data());
    std::printf("  ConjGrad + %-20s f = %-12.4g x = (%.6f, %.6f)\n", row.name, f, x[0], x[1]);
  }
}

const Register lineMinimizers(Section{20, "line-minimizers", LineMinimizers});

}  // namespace
}  // namespace demo
