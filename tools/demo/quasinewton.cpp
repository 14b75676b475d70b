// The quasi-Newton rows of the demo table beyond the library's own: BFGS,
// DFP and L-BFGS with each other line minimizer, BFGS with a carried matrix
// (two runs in a row with one object) with each; and a section showing the
// kept inverse Hessian.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

#include "demo/demo.h"

namespace demo {
namespace {

constexpr double kTolerance = 1e-8;

// The line minimizers, by the suffix they give an optimizer's name. The
// max-step search gets no limits of its own: every BFGS-family run hands it
// the start vector through SetMaxStep, which it takes as its limits.
struct Search {
  const char* suffix;
  std::function<std::unique_ptr<LxOpt::LxLineMinimize>()> make;
};
const std::vector<Search>& Searches() {
  static const std::vector<Search> searches = {
      {"", [] { return std::make_unique<LxOpt::LxQNLineMinimize>(); }},
      {"+CG", [] { return std::make_unique<LxOpt::LxCGLineMinimize>(); }},
      {"+MaxStep", [] { return std::make_unique<LxOpt::LxMaxStepLineMinimize>(); }},
      {"+NR", [] { return std::make_unique<LxOpt::LxNRLineSearch>(); }},
  };
  return searches;
}

template <class Opt>
Opt Configured(const LxOpt::LxLineMinimize& search) {
  Opt opt;
  opt.SetTolerance(kTolerance);
  opt.SetLineMinimize(search);
  return opt;
}

// One LxBFGSModOpt runs twice: 20 iterations from the start, then on from
// where that stopped, starting from the matrix and step the first run left.
RunFunction TwoRuns(const LxOpt::LxLineMinimize& search) {
  std::shared_ptr<LxOpt::LxLineMinimize> kept(search.CreateCopy());
  return [kept](LxOpt::LxFunc2& f, LxOpt::LxCheckpoint1* cp, const double* start, double* out) {
    LxOpt::LxBFGSModOpt opt = Configured<LxOpt::LxBFGSModOpt>(*kept);
    opt.SetIterLimit(20);
    opt(f, cp, start, out);
    const std::uint64_t first = opt.LastRun().evaluations;
    opt.SetIterLimit(LxOpt::LxBFGSModOpt::kDefaultIterLimit);
    opt(f, cp, out, out);
    LxOpt::LxRunSummary both = opt.LastRun();
    both.evaluations += first;
    return both;
  };
}

bool RegisterAll() {
  int order = 30;
  for (const Search& s : Searches()) {
    const int at = order++;
    const std::unique_ptr<LxOpt::LxLineMinimize> search = s.make();
    const std::string suffix = s.suffix;
    Register(Optimizer{at + 4, "BFGSMod2Runs" + suffix, false, TwoRuns(*search)});
    if (suffix.empty()) continue;  // the library's rows run the default search
    Register(Optimizer{at, "BFGS" + suffix, false, RunWith(Configured<LxOpt::LxBFGSOpt>(*search))});
    Register(
        Optimizer{at + 8, "DFP" + suffix, false, RunWith(Configured<LxOpt::LxDFPOpt>(*search))});
    Register(Optimizer{at + 12, "LBFGS" + suffix, false,
                       RunWith(Configured<LxOpt::LxLBFGSOpt>(*search))});
  }
  return true;
}
const bool registered = RegisterAll();

// 1/2 x'Ax - b'x with A = [4 1 0; 1 3 1; 0 1 2].
class Coupled : public Objective {
 public:
  using Objective::operator();
  unsigned int NumVar() const override { return 3; }
  double operator()(const double* x) override {
    double g[3];
    return (*this)(x, g);
  }
  double operator()(const double* x, double* g) override {
    const double ax[3] = {4 * x[0] + x[1], x[0] + 3 * x[1] + x[2], x[1] + 2 * x[2]};
    const double b[3] = {1, 2, 3};
    double f = 0.0;
    for (int i = 0; i < 3; ++i) {
      g[i] = ax[i] - b[i];
      f += 0.5 * x[i] * ax[i] - b[i] * x[i];
    }
    return f;
  }
};

// BFGS with the Hessian kept: the packed inverse it leaves after a run on a
// quadratic, next to the true inverse of A.
void KeptInverse(const Options&) {
  Coupled f;
  LxOpt::LxBFGSOpt opt;
  opt.SetKeepHessian(true);
  opt.SetTolerance(1e-20);
  const double start[3] = {0, 0, 0};
  double x[3];
  const double value = opt(f, start, x);
  double packed[6];
  opt.GetInverseHessian(packed, 3);
  // Inverse of A, lower triangle by rows (det A = 18).
  const double exact[6] = {5.0 / 18, -2.0 / 18, 8.0 / 18, 1.0 / 18, -4.0 / 18, 11.0 / 18};
  std::printf("  BFGS on 1/2 x'Ax - b'x: f = %.10g at (%.6f, %.6f, %.6f), %u matrix entries\n",
              value, x[0], x[1], x[2], opt.GetHessianDimension());
  std::printf("  kept inverse Hessian (packed)  true inverse\n");
  for (int k = 0; k < 6; ++k)
    std::printf("  %+.6f                     %+.6f\n", packed[k], exact[k]);
}

const Register keptInverse(Section{30, "kept-inverse-hessian", KeptInverse});

}  // namespace
}  // namespace demo
