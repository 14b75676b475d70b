// Every optimizer of the library by name: the objective it needs and a
// factory for an object with default settings. Tests, fuzz targets,
// benchmarks, the demo and the bindings take their lists from here.
#ifndef LXOPT_REGISTRY_H
#define LXOPT_REGISTRY_H

#include <memory>
#include <string>
#include <vector>

#include "lxopt/lxopt_export.h"
#include "lxopt/optimizer.h"

namespace LxOpt {

// What an optimizer's objective must supply besides values.
enum class LxObjectiveNeeds { kGradient, kHessian };

struct LxOptimizerEntry {
  const char* name;       // short name: "BFGS", "NewtonConstr", ...
  const char* className;  // the public class: "LxBFGSOpt", ...
  const char* family;     // "SD", "CG", "QN", "Newton" or "SA"
  LxObjectiveNeeds needs;
  // Whether a run ends when its checkpoint answers false to a state-0 report.
  bool honoursStop;
  // A new optimizer with default settings: make1 for kGradient, make2 for
  // kHessian; the other is null. Annealing comes as a class that supplies
  // the two getters LxSAOpt leaves open, at 300 K.
  std::unique_ptr<LxOptimizer1> (*make1)();
  std::unique_ptr<LxOptimizer2> (*make2)();
};

// Every optimizer, in a fixed order (steepest descent first).
LXOPT_API const std::vector<LxOptimizerEntry>& LxOptimizerRegistry();
// The entry called name, or null.
LXOPT_API const LxOptimizerEntry* LxFindOptimizer(const std::string& name);

// An optimizer made from an entry, behind one interface: every run takes an
// LxFunc2, of which a gradient optimizer uses values and gradients only.
class LXOPT_API LxAnyOptimizer {
 public:
  explicit LxAnyOptimizer(const LxOptimizerEntry& entry);
  const LxOptimizerEntry& Entry() const { return entry_; }
  // The optimizer itself: exactly one of the two is non-null.
  LxOptimizer1* Gradient() const { return gradient_.get(); }
  LxOptimizer2* Hessian() const { return hessian_.get(); }
  // Forward to the optimizer.
  void SetIterLimit(unsigned int limit);
  void SetTolerance(double tolerance);
  unsigned int GetIterLimit() const;
  double GetTolerance() const;
  double operator()(LxFunc2& func, LxCheckpoint1* checkpoint, const double* start, double* out);
  const LxRunSummary& LastRun() const;

 private:
  const LxOptimizerEntry& entry_;
  std::unique_ptr<LxOptimizer1> gradient_;
  std::unique_ptr<LxOptimizer2> hessian_;
};

}  // namespace LxOpt

#endif  // LXOPT_REGISTRY_H
