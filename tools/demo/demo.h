// The demo's registry: problems, optimizer runs and free-form sections, each
// registered by a file of its own at static-initialisation time.
#ifndef LXOPT_TOOLS_DEMO_DEMO_H
#define LXOPT_TOOLS_DEMO_DEMO_H

#include <lxopt/lxopt.h>

#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace demo {

struct Options {
  bool trace = false;
  std::string only;  // empty: everything
};

struct Problem {
  int order;  // position in the table
  std::string name;
  std::function<std::unique_ptr<LxOpt::LxFunc2>()> make;
  std::vector<double> start;
  bool hasHessian;
  double knownMinimum = std::numeric_limits<double>::quiet_NaN();
};

// One run; returns the optimizer's summary of it.
using RunFunction = std::function<LxOpt::LxRunSummary(
    LxOpt::LxFunc2& func, LxOpt::LxCheckpoint1* checkpoint, const double* start, double* out)>;

struct Optimizer {
  int order;
  std::string name;
  bool needsHessian;
  RunFunction run;
};

// A demonstration that does not fit the table (printed after it).
struct Section {
  int order;
  std::string name;
  std::function<void(const Options&)> run;
};

// Base for demo objectives: one component, no Hessian unless overridden.
class Objective : public LxOpt::LxFunc2 {
 public:
  using LxOpt::LxFunc2::operator();
  std::vector<LxOpt::LxFComponent> GetFComponents(const double* x) override {
    return {{"total", (*this)(x)}};
  }
  bool operator()(const double*, double*, double*) override { return false; }
};

struct Registry {
  std::vector<Problem> problems;
  std::vector<Optimizer> optimizers;
  std::vector<Section> sections;
};
Registry& TheRegistry();
// The registered problem of that name; nullptr if there is none.
const Problem* FindProblem(const std::string& name);

struct Register {
  explicit Register(Problem p) { TheRegistry().problems.push_back(std::move(p)); }
  explicit Register(Optimizer o) { TheRegistry().optimizers.push_back(std::move(o)); }
  explicit Register(Section s) { TheRegistry().sections.push_back(std::move(s)); }
};

// Runs any LxOptimizer1 (copied per run) through the registry's signature.
template <class Opt>
RunFunction RunWith(Opt opt) {
  return
      [opt](LxOpt::LxFunc2& f, LxOpt::LxCheckpoint1* cp, const double* start, double* out) mutable {
        opt(f, cp, start, out);
        return opt.LastRun();
      };
}

}  // namespace demo

#endif  // LXOPT_TOOLS_DEMO_DEMO_H
