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

// The outcome as the optimizer's own summary of the run states it.
Outcome Finish(std::vector<double> x, const LxOpt::LxRunSummary& summary) {
  Outcome o;
  o.x = std::move(x);
  o.iterations = summary.iterations;
  o.status = LxOpt::LxGetStateName(summary.state);
  return o;
}

// A registered optimizer with the common stopping rule: the Newton family's
// tolerance is on the RMS gradient, the others' on sum g^2.
Method Registered(const LxOpt::LxOptimizerEntry& entry) {
  return {"LxOpt", entry.name, entry.family, [&entry](Counting& f) {
            LxOpt::LxAnyOptimizer opt(entry);
            opt.SetIterLimit(kIterLimit);
            opt.SetTolerance(entry.needs == LxOpt::LxObjectiveNeeds::kHessian
                                 ? kGradientTolerance / std::sqrt(double(f.NumVar()))
                                 : kGradientTolerance * kGradientTolerance);
            const std::vector<double> start = f.problem().Start();
            std::vector<double> x(start.size());
            opt(f, nullptr, start.data(), x.data());
            return Finish(std::move(x), opt.LastRun());
          }};
}

// The geometry driver, history steps (DIIS, subspace) off or on.
Method Geometry(const std::string& name, bool history) {
  return {"LxOpt", name, "QN", [history](Counting& f) {
            LxOpt::LxBFGSOptimizer opt;
            opt.SetIterLimit(kIterLimit);
            opt.SetTolerance(kGradientTolerance);
            opt.SetHistory(history);
            const std::vector<double> start = f.problem().Start();
            std::vector<double> x(start.size());
            opt(f, start.data(), x.data());
            // The summary names the state that ended the run (Grad, Stable,
            // NotFound, ...), not the closing Done that follows most of them.
            return Finish(std::move(x), opt.LastRun());
          }};
}

}  // namespace

// Every registered optimizer but the geometry driver (with its own
// tolerance, with and without history steps), the constrained Newton run
// (no constraints here) and annealing (a global search).
std::vector<Method> LxOptMethods() {
  std::vector<Method> methods;
  for (const LxOpt::LxOptimizerEntry& e : LxOpt::LxOptimizerRegistry()) {
    const std::string name = e.name;
    if (name == "GeomBFGS") {
      methods.push_back(Geometry("GeomBFGS", false));
      methods.push_back(Geometry("GeomBFGS-DIIS", true));
    } else if (name != "NewtonConstr" && name != "Annealing") {
      methods.push_back(Registered(e));
    }
  }
  return methods;
}

}  // namespace lxbench
