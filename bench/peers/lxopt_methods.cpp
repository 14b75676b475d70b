// LxOpt's optimizers under the common stopping rule. The gradient
// optimizers stop on the squared norm, sum g^2 < 1e-12; the Newton optimizer
// on the RMS gradient, sqrt(sum g^2 / n) < 1e-6 / sqrt(n). Both are
// |g| < 1e-6.
#include <cmath>
#include <memory>

#include "harness.h"
#include "lxopt/lxopt.h"

namespace lxbench {
namespace {

// Remembers the last iteration number and state reported; never stops a run.
class LastReport : public LxOpt::LxCheckpoint1 {
 public:
  using LxOpt::LxCheckpoint1::operator();
  bool operator()(unsigned int iter, unsigned int, double, double, const double*, const double*,
                  unsigned int state) override {
    iteration = iter;
    last = state;
    return true;
  }
  unsigned int iteration = 0;
  unsigned int last = 0;
};

Outcome Finish(std::vector<double> x, const LastReport& report) {
  Outcome o;
  o.x = std::move(x);
  o.iterations = report.iteration;
  // The beta conjugate gradients end some runs without a final report; the
  // last report is then a per-iteration one.
  o.status = report.last == LxOpt::kLxCont ? "Silent" : LxOpt::LxGetStateName(report.last);
  return o;
}

template <class Optimizer>
Method First(const std::string& name, const std::string& methodClass) {
  return {"LxOpt", name, methodClass, [](Counting& f) {
            Optimizer opt;
            opt.SetIterLimit(kIterLimit);
            opt.SetTolerance(kGradientTolerance * kGradientTolerance);
            LastReport report;
            const std::vector<double> start = f.problem().Start();
            std::vector<double> x(start.size());
            opt(f, &report, start.data(), x.data());
            return Finish(std::move(x), report);
          }};
}

Method Newton() {
  return {"LxOpt", "Newton", "Newton", [](Counting& f) {
            LxOpt::LxNewtonOpt opt;
            opt.SetIterLimit(kIterLimit);
            opt.SetTolerance(kGradientTolerance / std::sqrt(double(f.NumVar())));
            LastReport report;
            const std::vector<double> start = f.problem().Start();
            std::vector<double> x(start.size());
            opt(f, &report, start.data(), x.data());
            return Finish(std::move(x), report);
          }};
}

}  // namespace

std::vector<Method> LxOptMethods() {
  return {First<LxOpt::LxSteepestDescentOpt>("SteepestDescent", "SD"),
          First<LxOpt::LxConjGradOpt>("ConjGrad", "CG"),
          First<LxOpt::LxFletcherReevesOpt>("FletcherReeves", "CG"),
          First<LxOpt::LxRibierePolakOpt>("RibierePolak", "CG"),
          First<LxOpt::LxHestenesStiefelOpt>("HestenesStiefel", "CG"),
          First<LxOpt::LxBFGSOpt>("BFGS", "QN"),
          First<LxOpt::LxDFPOpt>("DFP", "QN"),
          First<LxOpt::LxLBFGSOpt>("LBFGS", "QN"),
          Newton()};
}

}  // namespace lxbench
