// Every optimizer, chosen by the first byte, on a random polynomial with
// random settings, line minimizer and stopping checkpoint.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "fuzz_input.h"
#include "lxopt/anneal.h"
#include "lxopt/conjgrad.h"
#include "lxopt/geomopt.h"
#include "lxopt/newton.h"
#include "lxopt/quasinewton.h"
#include "lxopt/steepest.h"

namespace {

using lxfuzz::Bytes;

enum Choice : unsigned int {
  kSteepest,
  kConjGrad,
  kFletcherReeves,
  kPolakRibiere,
  kHestenesStiefel,
  kBFGS,
  kBFGSMod,
  kDFP,
  kLBFGS,
  kGeometry,
  kNewton,
  kNewtonConstr,
  kAnnealing,
  kChoices
};

// Dense-matrix optimizers keep n smaller; Newton factorises n x n each step.
unsigned int SizeCap(unsigned int choice) {
  switch (choice) {
    case kNewton:
    case kNewtonConstr:
      return 24;
    case kAnnealing:
      return 12;
    case kBFGS:
    case kBFGSMod:
    case kDFP:
    case kGeometry:
      return 120;
    default:
      return 300;
  }
}

// Simulated annealing leaves the two getters to the derived class.
class Annealing : public LxOpt::LxSAOpt {
 public:
  using LxOpt::LxSAOpt::LxSAOpt;
  unsigned int GetIterLimit() const override { return EvaluationLimit(); }
  double GetTolerance() const override { return Tolerance(); }
};

template <class Opt>
void Configure(Opt& opt, Bytes& in, unsigned int n) {
  opt.SetIterLimit(in.Below(48));
  opt.SetTolerance(in.Tolerance());
  if (in.Bool()) opt.SetLineMinimize(*lxfuzz::MakeLineMinimizer(in, n));
}

// Runs opt once or twice (a second run exercises kept matrices); out may be
// the start array itself.
template <class Opt, class Func>
void Run(Opt& opt, Func& func, Bytes& in, unsigned int n) {
  const unsigned int runs = in.Below(3) == 0 ? 2 : 1;
  for (unsigned int r = 0; r < runs; ++r) {
    lxfuzz::StoppingCheckpoint checkpoint(in, n);
    std::vector<double> start = lxfuzz::StartPoint(in, n);
    std::vector<double> out(n);
    const bool inPlace = in.Bool();
    const bool withCheckpoint = in.Below(4) != 0;
    opt(func, withCheckpoint ? &checkpoint : nullptr, start.data(),
        inPlace ? start.data() : out.data());
  }
}

void RunBFGSFamily(LxOpt::LxBFGSOpt& opt, lxfuzz::Polynomial& func, Bytes& in, unsigned int n) {
  Configure(opt, in, n);
  opt.SetKeepHessian(in.Bool());
  const unsigned int setup = in.Below(4);
  const unsigned int m = in.Below(4) == 0 ? in.Below(n + 2) : n;  // sometimes another size
  if (setup == 1) {
    std::vector<double> packed = lxfuzz::RandomPacked(in, m);
    opt.SetInitialInverseHessian(packed.data(), m);
  } else if (setup == 2) {
    std::vector<double> packed = lxfuzz::RandomPacked(in, m);
    opt.SetInitialHessian(packed.data(), m);
  }
  Run(opt, func, in, n);
  std::vector<double> h(static_cast<std::size_t>(m) * (m + 1) / 2 + 1);
  opt.GetInverseHessian(h.data(), m);
  LxOpt::LxBFGSOpt copy(opt);  // copies carry the kept matrix
  copy.GetInverseHessian(h.data(), m);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Bytes in(data, size);
  const unsigned int choice = in.Below(kChoices);
  const unsigned int n = in.Below(SizeCap(choice) + 1);
  lxfuzz::Polynomial func(in, n, in.Range(1, 3000));

  switch (choice) {
    case kSteepest: {
      LxOpt::LxSteepestDescentOpt opt;
      opt.SetIterLimit(in.Below(200));
      opt.SetTolerance(in.Tolerance());
      Run(opt, func, in, n);
      break;
    }
    case kConjGrad: {
      LxOpt::LxConjGradOpt opt;
      Configure(opt, in, n);
      Run(opt, func, in, n);
      break;
    }
    case kFletcherReeves: {
      LxOpt::LxFletcherReevesOpt opt;
      Configure(opt, in, n);
      Run(opt, func, in, n);
      break;
    }
    case kPolakRibiere: {
      LxOpt::LxRibierePolakOpt opt;
      Configure(opt, in, n);
      Run(opt, func, in, n);
      break;
    }
    case kHestenesStiefel: {
      LxOpt::LxHestenesStiefelOpt opt;
      Configure(opt, in, n);
      Run(opt, func, in, n);
      break;
    }
    case kBFGS: {
      LxOpt::LxBFGSOpt opt;
      RunBFGSFamily(opt, func, in, n);
      break;
    }
    case kBFGSMod: {
      LxOpt::LxBFGSModOpt opt;
      RunBFGSFamily(opt, func, in, n);
      LxOpt::LxBFGSModOpt copy(opt);  // carries the matrix of the last run
      Run(copy, func, in, n);
      break;
    }
    case kDFP: {
      LxOpt::LxDFPOpt opt;
      Configure(opt, in, n);
      Run(opt, func, in, n);
      break;
    }
    case kLBFGS: {
      LxOpt::LxLBFGSOpt opt;
      Configure(opt, in, n);
      opt.SetMemory(in.Below(20));
      Run(opt, func, in, n);
      break;
    }
    case kGeometry: {
      LxOpt::LxBFGSOptimizer opt;
      opt.SetIterLimit(in.Below(48));
      opt.SetTolerance(in.Tolerance());
      opt.SetHistory(in.Bool());
      opt.SetKeepHessian(in.Bool());
      Run(opt, func, in, n);
      std::vector<double> h(static_cast<std::size_t>(n) * (n + 1) / 2 + 1);
      opt.GetInverseHessian(h.data(), n);
      break;
    }
    case kNewton: {
      LxOpt::LxNewtonOpt opt;
      opt.SetIterLimit(in.Below(48));
      opt.SetTolerance(in.Tolerance());
      Run(opt, func, in, n);
      if (in.Bool()) {
        std::vector<double> start = lxfuzz::StartPoint(in, n), out(n);
        opt.GetImpl()->PreconditionWSteepestDescent(func, start.data(), out.data());
      }
      break;
    }
    case kNewtonConstr: {
      LxOpt::LxNewtonConstrOpt opt;
      opt.SetIterLimit(in.Below(48));
      opt.SetTolerance(in.Tolerance());
      // Mostly over all n variables; sometimes a mismatched count, which the
      // optimizer must refuse.
      const unsigned int na = in.Below(4) == 0 ? in.Below(n + 1) : n;
      lxfuzz::Restraint a(na, in.Number()), b(n, in.Number());
      const unsigned int constraints = in.Below(3);
      if (constraints > 0) opt.Add(a);
      if (constraints > 1) opt.Add(b);
      if (in.Below(4) == 0) opt.Remove(a);
      Run(opt, func, in, n);
      break;
    }
    case kAnnealing: {
      Annealing opt(in.Number());
      opt.SetIterLimit(in.Below(1500));
      opt.SetTolerance(in.Tolerance());
      opt.SetSeed(in.U32());
      Run(opt, func, in, n);
      break;
    }
    default:
      break;
  }
  return 0;
}
