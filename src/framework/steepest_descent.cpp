// Steepest descent with an adaptive step: grow by 1.2 on a decrease, halve on
// a rise or tie, give up when the step falls below 1e-10.
#include <cmath>
#include <cstring>

#include "framework/internal.h"
#include "framework/run_record.h"
#include "lxopt/host.h"
#include "lxopt/steepest.h"

namespace LxOpt {
namespace {

constexpr double kShrink = 0.5;
constexpr double kGrow = 1.2;
constexpr double kSmallestStep = 1e-10;

}  // namespace

double LxSteepestDescentOpt::operator()(LxFunc1& func, LxCheckpoint1* checkpoint,
                                        const double* start, double* out) {
  return detail::RecordRun(lastRun_, func, checkpoint, false,
                           [&](LxFunc1& counted, LxCheckpoint1* recorder) {
                             return Run(counted, recorder, start, out);
                           });
}

double LxSteepestDescentOpt::Run(LxFunc1& func, LxCheckpoint1* checkpoint, const double* start,
                                 double* out) {
  using detail::Finish;
  if (out == nullptr) {
    LxThrow.Warning("memory not provided for optimized variables");
    return 0.0;
  }
  const unsigned int n = func.NumVar();
  if (out != start) std::memmove(out, start, sizeof(double) * n);
  double* x = out;

  LxMallocaPtr block;
  double* const xt = block.AllocateDoubles(3 * static_cast<std::size_t>(n));
  if (xt == nullptr) {
    LxThrow.Warning("out of memory allocating %d in LxSteepestDescentOpt",
                    static_cast<int>(24 * static_cast<std::size_t>(n)));
    return 0.0;
  }
  double* const g = xt + n;
  double* const gt = g + n;

  detail::Zero(g, n);
  double f = func(x, g);
  double s = detail::SquaredNorm(g, n);
  if (s < tolerance_) return Finish(checkpoint, 0, n, f, std::sqrt(s), x, g, kLxNoOpt);

  double h = std::sqrt(1.0 / s);
  unsigned int k = 0;
  for (; k < iterLimit_; ++k) {
    for (unsigned int i = 0; i < n; ++i) xt[i] = x[i] - h * g[i];
    detail::Zero(gt, n);
    const double ft = func(xt, gt);
    s = detail::SquaredNorm(gt, n);

    if (ft >= f) {
      h *= kShrink;
      if (h < kSmallestStep) return Finish(checkpoint, k, n, f, std::sqrt(s), x, g, kLxNotFound);
    } else {
      // A trial value that is not a number lands here too: only >= rejects.
      // Deliberate: out and g keep the previous point while the trial value
      // is returned; callers rely on it.
      if (s < tolerance_) return Finish(checkpoint, k, n, ft, std::sqrt(s), x, g, kLxDone);
      h *= kGrow;
      f = ft;
      detail::Copy(gt, g, n);
      detail::Copy(xt, x, n);
    }
    // The answer is ignored: this optimizer never stops on request. After a
    // rejection sqrt(s) is the rejected trial's gradient norm.
    detail::Report(checkpoint, k, n, f, std::sqrt(s), x, g, kLxCont);
  }
  return Finish(checkpoint, k, n, f, std::sqrt(s), x, g, kLxExhaust);
}

}  // namespace LxOpt
