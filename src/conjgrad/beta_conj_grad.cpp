// Nonlinear conjugate gradients d' = -gNew + beta d with Powell restarts, one
// loop for the Fletcher-Reeves, Polak-Ribiere and Hestenes-Stiefel
// coefficients. Nocedal and Wright, Numerical Optimization, 2nd ed., section
// 5.2 (the coefficients and Powell's restart test with the constant 0.2).
#include <cmath>

#include "conjgrad/beta.h"
#include "conjgrad/run_start.h"
#include "framework/internal.h"
#include "framework/run_record.h"
#include "lxopt/conjgrad.h"
#include "lxopt/host.h"

namespace LxOpt {
namespace {

constexpr double kPowellRatio = 0.2;  // restart when |gNew.g| / gNew.gNew > 0.2

// Deliberate: Polak-Ribiere reports under the general class's name; the texts
// stay as clients know them.
const char* OutOfMemoryMessage(LxBetaConjGradOpt::Beta beta) {
  switch (beta) {
    case LxBetaConjGradOpt::Beta::kFletcherReeves:
      return "out of memory allocating %d in LxFletcherReevesOpt";
    case LxBetaConjGradOpt::Beta::kHestenesStiefel:
      return "out of memory allocating %d in LxHestenesStiefelOpt";
    case LxBetaConjGradOpt::Beta::kPolakRibiere:
      break;
  }
  return "out of memory allocating %d in LxConjGradOpt";
}

}  // namespace

double LxBetaConjGradOpt::operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* x0,
                                     double* x) {
  return detail::RecordRun(lastRun_, func, checkpoint, true,
                           [&](LxFunc1& counted, detail::RunRecorder* recorder) {
                             unsigned int silentState = kLxCont;
                             const double f = Run(counted, recorder, x0, x, &silentState);
                             recorder->SetSilentState(silentState);
                             return f;
                           });
}

double LxBetaConjGradOpt::Run(LxFunc1& func, LxCheckpoint1* checkpoint, const double* x0, double* x,
                              unsigned int* silentState) {
  using detail::Finish;
  // The same 6n block as LxConjGradOpt; the family uses the first three.
  LxMallocaPtr block;
  unsigned int n = 0;
  double* const g = detail::BeginConjGradRun(func, x0, x, block, OutOfMemoryMessage(beta_), &n);
  if (g == nullptr) return 0.0;
  double* const d = g + n;
  double* const gNew = d + n;

  double gg = 0.0;
  double f = detail::SteepestDescentAt(func, n, x, g, d, &gg);
  // The two silent exits make no report; the run summary still learns how
  // the run ended.
  const auto endSilently = [&](unsigned int state) {
    *silentState = state;
    return f;
  };
  if (gg < GetTolerance()) return Finish(checkpoint, 0, n, f, std::sqrt(gg), x, g, kLxNoOpt);
  double step = 1.0 / std::sqrt(gg);  // the only reset to 1/|g| in a run
  if (GetIterLimit() <= 1) return Finish(checkpoint, 1, n, f, std::sqrt(gg), x, g, kLxExhaust);

  unsigned int sinceRestart = 0;
  // Whether the direction being searched is a steepest-descent (restart) one;
  // the two "counter is 0" exits below mean exactly this.
  bool steepest = true;
  double slopeRef = -gg;
  for (unsigned int k = 1;;) {
    if (!LineMinimizer()(n, x, d, g, gNew, &f, &step, func)) {
      if (steepest) return endSilently(kLxNotFound);  // even steepest descent found nothing
      // Deliberate: carry on as after a success, moving x by the step that
      // stood before the failed search, with f and the new gradient not
      // refreshed (gNew keeps what the last iteration left, a copy of g), and
      // restart.
      sinceRestart = n;
    }
    detail::BetaInputs dots{gg, 0.0, 0.0, 0.0};
    double gNewG = 0.0;  // for Powell's test
    for (unsigned int i = 0; i < n; ++i) {
      x[i] += step * d[i];
      const double y = gNew[i] - g[i];
      dots.ggNew += gNew[i] * gNew[i];
      dots.gNewY += gNew[i] * y;
      dots.dY += d[i] * y;
      gNewG += gNew[i] * g[i];
    }
    const double gnorm = std::sqrt(dots.ggNew);
    // Deliberate: this family passes no gradient to its checkpoint.
    if (!detail::Report(checkpoint, k, n, f, gnorm, x, nullptr, kLxCont))
      return Finish(checkpoint, k, n, f, gnorm, x, nullptr, kLxDone);

    bool restart;
    if (dots.ggNew < GetTolerance()) {
      if (steepest) return endSilently(kLxGrad);  // converged on a steepest-descent step
      restart = true;                             // a conjugate step must be confirmed first
    } else {
      restart = sinceRestart >= n || std::fabs(gNewG) / dots.ggNew > kPowellRatio;
    }

    // New direction; g takes gNew in the same pass (gNew keeps its copy).
    const double beta = restart ? 0.0 : detail::ConjugacyCoefficient(beta_, dots);
    double slope = 0.0;
    for (unsigned int i = 0; i < n; ++i) {
      d[i] = restart ? -gNew[i] : -gNew[i] + beta * d[i];
      g[i] = gNew[i];
      slope += gNew[i] * d[i];
    }
    gg = dots.ggNew;

    // Next first trial step: kept after a restart, scaled by the slope ratio
    // after a conjugate update.
    if (restart) {
      sinceRestart = 1;
      steepest = true;
    } else {
      step *= slopeRef / slope;
      ++sinceRestart;
      steepest = false;
    }
    slopeRef = slope;

    if (++k == GetIterLimit()) return Finish(checkpoint, k, n, f, std::sqrt(gg), x, g, kLxExhaust);
  }
}

}  // namespace LxOpt
