// Every optimizer, chosen by the first byte, on a random polynomial with
// random settings, line minimizer and stopping checkpoint.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "lxopt/lxopt.h"

namespace {

using lxfuzz::Bytes;

// Dense-matrix optimizers keep n smaller; Newton factorises n x n each step.
unsigned int SizeCap(const std::string& name) {
  if (name == "Newton" || name == "NewtonConstr") return 24;
  if (name == "Annealing") return 12;
  if (name == "BFGS" || name == "BFGSMod" || name == "DFP" || name == "GeomBFGS") return 120;
  return 300;
}

// Sometimes another line minimizer.
template <class Opt>
void Configure(Opt& opt, Bytes& in, unsigned int n) {
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
  if (auto* mod = dynamic_cast<LxOpt::LxBFGSModOpt*>(&opt)) {
    LxOpt::LxBFGSModOpt carried(*mod);  // carries the matrix of the last run
    Run(carried, func, in, n);
  }
}

// The settings a gradient optimizer has beyond the common two, then its run.
void RunGradient(LxOpt::LxOptimizer1& opt, lxfuzz::Polynomial& func, Bytes& in, unsigned int n) {
  if (auto* bfgs = dynamic_cast<LxOpt::LxBFGSOpt*>(&opt)) {
    Configure(*bfgs, in, n);
    RunBFGSFamily(*bfgs, func, in, n);
  } else if (auto* lbfgs = dynamic_cast<LxOpt::LxLBFGSOpt*>(&opt)) {
    Configure(*lbfgs, in, n);
    lbfgs->SetMemory(in.Below(20));
    Run(*lbfgs, func, in, n);
  } else if (auto* cg = dynamic_cast<LxOpt::LxConjGradBase*>(&opt)) {
    Configure(*cg, in, n);
    Run(*cg, func, in, n);
  } else if (auto* dfp = dynamic_cast<LxOpt::LxDFPOpt*>(&opt)) {
    Configure(*dfp, in, n);
    Run(*dfp, func, in, n);
  } else if (auto* geometry = dynamic_cast<LxOpt::LxBFGSOptimizer*>(&opt)) {
    geometry->SetHistory(in.Bool());
    geometry->SetKeepHessian(in.Bool());
    Run(opt, func, in, n);
    std::vector<double> h(static_cast<std::size_t>(n) * (n + 1) / 2 + 1);
    geometry->GetInverseHessian(h.data(), n);
  } else if (auto* annealing = dynamic_cast<LxOpt::LxSAOpt*>(&opt)) {
    annealing->SetTemperature(in.Number());
    annealing->SetIterLimit(in.Below(1500));
    annealing->SetSeed(in.U32());
    Run(opt, func, in, n);
  } else {
    Run(opt, func, in, n);  // steepest descent
  }
}

void RunHessian(LxOpt::LxOptimizer2& opt, lxfuzz::Polynomial& func, Bytes& in, unsigned int n) {
  if (auto* constrained = dynamic_cast<LxOpt::LxNewtonConstrOpt*>(&opt)) {
    // Mostly over all n variables; sometimes a mismatched count, which the
    // optimizer must refuse.
    const unsigned int na = in.Below(4) == 0 ? in.Below(n + 1) : n;
    lxfuzz::Restraint a(na, in.Number()), b(n, in.Number());
    const unsigned int constraints = in.Below(3);
    if (constraints > 0) constrained->Add(a);
    if (constraints > 1) constrained->Add(b);
    if (in.Below(4) == 0) constrained->Remove(a);
    Run(opt, func, in, n);  // while the restraints live
    return;
  }
  Run(opt, func, in, n);
  if (auto* newton = dynamic_cast<LxOpt::LxNewtonOpt*>(&opt); newton && in.Bool()) {
    std::vector<double> start = lxfuzz::StartPoint(in, n), out(n);
    newton->GetImpl()->PreconditionWSteepestDescent(func, start.data(), out.data());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Bytes in(data, size);
  const std::vector<LxOpt::LxOptimizerEntry>& registry = LxOpt::LxOptimizerRegistry();
  const LxOpt::LxOptimizerEntry& entry =
      registry[in.Below(static_cast<unsigned int>(registry.size()))];
  const unsigned int n = in.Below(SizeCap(entry.name) + 1);
  lxfuzz::Polynomial func(in, n, in.Range(1, 3000));
  LxOpt::LxAnyOptimizer opt(entry);
  opt.SetIterLimit(in.Below(entry.family == std::string("SD") ? 200 : 48));
  opt.SetTolerance(in.Tolerance());
  if (opt.Gradient() != nullptr) {
    RunGradient(*opt.Gradient(), func, in, n);
  } else {
    RunHessian(*opt.Hessian(), func, in, n);
  }
  return 0;
}
