// The line minimizers called directly: random polynomial, start, direction,
// entry value and first step. Checks the argument contract: x0 and grad0 are
// never written; for the three searches other than the backtracking one,
// success means no value at or above the entry value, failure leaves the
// outputs alone, and a copy repeats the call exactly. The evaluation budget
// of the objective bounds every search.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz_input.h"
#include "lxopt/linmin.h"

namespace {

using lxfuzz::Bytes;
using lxfuzz::Check;

constexpr unsigned int kMaxVariables = 300;

struct Outcome {
  bool ok;
  double fval, step;
  std::vector<double> dir, gradOut;
  std::uint64_t evaluations;
};

bool SameBits(double a, double b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}
bool SameBits(const std::vector<double>& a, const std::vector<double>& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Bytes in(data, size);
  const unsigned int n = in.Below(kMaxVariables + 1);
  std::unique_ptr<LxOpt::LxLineMinimize> lm = lxfuzz::MakeLineMinimizer(in, n);
  // The backtracking search writes its outputs on failure too and may
  // shorten dir; the max-step search may lower the step before its inner
  // search fails.
  const bool backtracking = dynamic_cast<LxOpt::LxNRLineSearch*>(lm.get()) != nullptr;
  const bool marching = dynamic_cast<LxOpt::LxMaxStepLineMinimize*>(lm.get()) != nullptr;
  const std::uint64_t budget = in.Range(1, 2000);

  // Two identical objectives: one for the original, one for the copy.
  const std::size_t objectiveStart = size - in.Remaining();
  Bytes objectiveBytes(data + objectiveStart, in.Remaining());
  lxfuzz::Polynomial func(in, n, budget);
  lxfuzz::Polynomial twin(objectiveBytes, n, budget);

  const std::vector<double> x0 = lxfuzz::StartPoint(in, n);
  std::vector<double> grad0(n, 0.0);
  double fval = 0.0;
  if (in.Below(4) != 0) {
    fval = func(x0.data(), grad0.data());
    std::vector<double> scratch(n, 0.0);
    twin(x0.data(), scratch.data());  // keeps the twin's evaluation count in step
  } else {
    for (double& g : grad0) g = in.Number();
    fval = in.Number();
  }
  std::vector<double> dir(n);
  const unsigned int dirKind = in.Below(4);
  for (unsigned int i = 0; i < n; ++i) {
    dir[i] = dirKind == 0   ? in.Number()
             : dirKind == 1 ? 0.0
                            : -grad0[i] * (dirKind == 2 ? 1.0 : -1.0);
  }
  const double step = in.Below(4) == 0 ? in.Number() : 1.0 / (1.0 + std::sqrt(std::fabs(fval)));

  auto call = [&](const LxOpt::LxLineMinimize& search, lxfuzz::Polynomial& objective) {
    Outcome o{false, fval, step, dir, std::vector<double>(n, -7.0), 0};
    std::vector<double> point = x0, g0 = grad0;
    const std::uint64_t before = objective.Evaluations();
    o.ok = search(n, point.data(), o.dir.data(), g0.data(), o.gradOut.data(), &o.fval, &o.step,
                  objective);
    o.evaluations = objective.Evaluations() - before;
    Check(SameBits(point, x0), "line minimizer left x0 alone");
    Check(SameBits(g0, grad0), "line minimizer left grad0 alone");
    return o;
  };

  const Outcome first = call(*lm, func);
  // Intended: a value that is not a number fails every comparison, so it
  // counts as a decrease; success only rules out a value at or above entry.
  // The backtracking search accepts f <= f0 + 1e-4 a slope0 (equality with a
  // zero slope) and re-evaluates the accepted point, so it is left out.
  if (first.ok && !backtracking)
    Check(!(first.fval >= fval), "success means no value at or above the entry value");
  if (!first.ok && !backtracking) {
    Check(SameBits(first.fval, fval), "failure keeps fval");
    if (!marching) Check(SameBits(first.step, step), "failure keeps step");
    Check(SameBits(first.gradOut, std::vector<double>(n, -7.0)), "failure keeps gradOut");
  }
  if (!backtracking) Check(SameBits(first.dir, dir), "dir is left alone");

  // A copy of the backtracking search deliberately starts without the
  // direction cap, so only the others must repeat the call exactly.
  if (backtracking) return 0;
  std::unique_ptr<LxOpt::LxLineMinimize> copy(lm->CreateCopy());
  const Outcome second = call(*copy, twin);
  Check(first.ok == second.ok && SameBits(first.fval, second.fval) &&
            SameBits(first.step, second.step) && SameBits(first.gradOut, second.gradOut) &&
            SameBits(first.dir, second.dir) && first.evaluations == second.evaluations,
        "a copy repeats the search exactly");
  return 0;
}
