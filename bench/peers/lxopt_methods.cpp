// LxOpt's optimizers under the common stopping rule. The gradient
// optimizers stop on the squared norm, sum g^2 < 1e-12; the Newton optimizer
// on the RMS gradient, sqrt(sum g^2 / n) < 1e-6 / sqrt(n). Both are
// |g| < 1e-6. The geometry driver takes tolerance 1e-6: below 0.1 its value
// and displacement thresholds are 1e-23 and 1e-24 (they fire only when the
// run has stopped moving) and its gradient test is |g| <= 1e-6, after which
// every |g_i| <= 1e-6 holds too and the run ends. Its stall rule (16 cycles
// that lower f by less than 1e-7) is part of its definition and stays: such
// runs end with state Done and are judged by their final point like any other.
#include <cmath>
#include <memory>

#include "harness.h"
#include "lxopt/lxopt.h"

namespace lxbench {
namespace {

// Remembers the last iteration number and state reported, and the first
// state other than Cont; never stops a run.
class LastReport : public LxOpt::LxCheckpoint1 {
 public:
  using LxOpt::LxCheckpoint1::operator();
  bool operator()(unsigned int iter, unsigned int, double, double, const double*, const double*,
                  unsigned int state) override {
    iteration = iter;
    last = state;
    if (first == LxOpt::kLxCont) first = state;
    return true;
  }
  unsigned int iteration = 0;
  unsigned int last = 0;
  unsigned int first = LxOpt::kLxCont;
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

// The geometry driver, history steps (DIIS, subspace) off or on.
Method Geometry(const std::string& name, bool history) {
  return {"LxOpt", name, "QN", [history](Counting& f) {
            LxOpt::LxBFGSOptimizer opt;
            opt.SetIterLimit(kIterLimit);
            opt.SetTolerance(kGradientTolerance);
            opt.SetHistory(history);
            LastReport report;
            const std::vector<double> start = f.problem().Start();
            std::vector<double> x(start.size());
            opt(f, &report, start.data(), x.data());
            // The state that ended the run (Grad, Stable, NotFound, ...) says
            // more than the closing Done that follows most of them.
            Outcome o = Finish(std::move(x), report);
            if (report.first != LxOpt::kLxCont) o.status = LxOpt::LxGetStateName(report.first);
            return o;
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
          Geometry("GeomBFGS", false),
          Geometry("GeomBFGS-DIIS", true),
          Newton()};
}

}  // namespace lxbench
