// LxBFGSOptimizer: the cycle loop of the geometry driver and its end tests
// (stall counter, displacement/value/gradient cascade, component test). The
// step of each cycle is made by geom::CycleStep.
#include <cmath>
#include <cstring>
#include <typeinfo>

#include "framework/internal.h"
#include "framework/packed.h"
#include "framework/run_record.h"
#include "geomopt/geom_internal.h"
#include "geomopt/surrogate_step.h"
#include "lxopt/geomopt.h"

namespace LxOpt {
namespace {

// A cycle that lowers the best value by less than this counts as stalled;
// more than kStallCycles stalled cycles in a row end the run.
constexpr double kStallDecrease = 1e-7;
constexpr unsigned int kStallCycles = 15;
// The component test gives up after more than kComponentAttempts reports in
// a row whose values stay within kComponentWindow of the first.
constexpr unsigned int kComponentAttempts = 5;
constexpr double kComponentWindow = 0.01;
// Line-search accuracy of the first cycle; later cycles pick theirs from
// the last value change.
constexpr double kFirstAccuracy = 0.01;
// A value change above this makes the stored history useless for DIIS.
constexpr double kHistoryResetChange = 10.0;
// History length: n / 2 up to this many variables, kLongHistory above.
constexpr unsigned int kShortHistoryVariables = 31;
constexpr unsigned int kLongHistory = 15;

struct Thresholds {
  double valueChange;     // e1
  double displacement;    // e2
  double gradientFactor;  // c: the gradient test is |g| <= c tol
};

Thresholds ThresholdsFor(double tolerance, unsigned int n) {
  // Deliberate: exact comparison with 0.1; the default tolerance has a row
  // of its own.
  if (tolerance > 0.1) return {0.001, 1e-4, std::sqrt(n + 1e-5)};
  if (tolerance == 0.1) return {1e-4, 1e-5, 1.0};
  return {1e-23, 1e-24, 1.0};
}

double AccuracyFor(double valueChange) {
  if (valueChange <= 1.0) return 0.002;
  if (valueChange <= 5.0) return 0.005;
  return 0.01;
}

double Norm(const double* v, unsigned int n) {
  return std::sqrt(detail::SquaredNorm(v, n));
}

bool ComponentsWithin(const double* g, unsigned int n, double tolerance) {
  for (unsigned int i = 0; i < n; ++i)
    if (!(std::fabs(g[i]) <= tolerance)) return false;
  return true;
}

// A checkpoint that is exactly an LxBFGSCheckpoint is handled in place by a
// qualified (non-virtual) call; any other is called through its virtual
// operator. The driver passes no gradient and ignores the answers.
void Report(LxCheckpoint1* checkpoint, unsigned int iter, unsigned int n, double f, double gnorm,
            const double* x, unsigned int state) {
  if (checkpoint == nullptr) return;
  if (typeid(*checkpoint) == typeid(LxBFGSCheckpoint)) {
    static_cast<LxBFGSCheckpoint*>(checkpoint)
        ->LxBFGSCheckpoint::operator()(iter, n, f, gnorm, x, nullptr, state);
  } else {
    (*checkpoint)(iter, n, f, gnorm, x, nullptr, state);
  }
}

// How a run ends: with the final state report (6 or 11) or without one.
enum class Ending { kFinalState, kAlreadyReported };

}  // namespace

namespace geom {

RunState::RunState(unsigned int n, bool withHistory) {
  const unsigned int m = n <= kShortHistoryVariables ? n / 2 : kLongHistory;
  const std::size_t size = n;
  buffer.assign(2 * size + (withHistory ? 2 * size * m + m : 0), 0.0);
  x = buffer.data();
  g = x + size;
  history = {g + size, g + size + size * m, g + size + 2 * size * m, m, n, 0, 0};
}

}  // namespace geom

LxBFGSOptimizer::LxBFGSOptimizer() = default;

LxBFGSOptimizer::~LxBFGSOptimizer() = default;

void LxBFGSOptimizer::SetAtomicNumbers(const int* numbers, unsigned int atoms) {
  if (numbers == nullptr) atoms = 0;
  atomicNumbers_.assign(numbers, numbers + atoms);
}

void LxBFGSOptimizer::store(double f, double& fsave, double g, double& gsave, const double* x,
                            double* xsave, double s, double& ssave, std::size_t n) {
  fsave = f;
  gsave = g;
  ssave = s;
  detail::Copy(x, xsave, n);
}

double LxBFGSOptimizer::operator()(LxFunc0&, const double*, double*) {
  LxThrow.Fatal("Cannot use LxFunc0 in gradient optimization");
}

double LxBFGSOptimizer::operator()(LxFunc0&, LxCheckpoint0*, const double*, double*) {
  LxThrow.Fatal("Cannot use LxFunc0 in gradient optimization");
}

bool LxBFGSOptimizer::GetInverseHessian(double* out, unsigned int n) const {
  if (keptHessian_.empty()) {
    // Deliberate: the missing "was"; the text is part of the interface.
    LxThrow.Warning("Hessian can't be extracted because it not generated");
    return false;
  }
  // n must be the latest run's; the kept matrix may come from an earlier run
  // over more variables, of which the leading n (n + 1) / 2 values are
  // copied as they stand. One kept for fewer variables cannot fill out.
  const std::size_t count = packed::Size(n);
  if (n != n_ || keptHessian_.size() < count) {
    LxThrow.Warning("Can't extract Hessian: Wrong number of variables");
    return false;
  }
  detail::Copy(keptHessian_.data(), out, count);
  return true;
}

double LxBFGSOptimizer::operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* in,
                                   double* out) {
  return detail::RecordRun(
      lastRun_, func, checkpoint, false,
      [&](LxFunc1& counted, LxCheckpoint1* recorder) { return Run(counted, recorder, in, out); });
}

double LxBFGSOptimizer::Run(LxFunc1& func, LxCheckpoint1* checkpoint, const double* in,
                            double* out) {
  n_ = func.NumVar();
  geom::RunState run(n_, historyEnabled_);
  if (n_ != 0) std::memcpy(run.x, in, sizeof(double) * n_);
  run.f = func(run.x, run.g);
  optimize(func, checkpoint, run);
  if (out != nullptr && n_ != 0) std::memcpy(out, run.x, sizeof(double) * n_);
  return run.f;
}

void LxBFGSOptimizer::optimize(LxFunc1& func, LxCheckpoint1* checkpoint, geom::RunState& run) {
  const unsigned int n = n_;
  const double tol = tolerance_;
  double* const x = run.x;
  double* const g = run.g;
  double& f = run.f;
  const Thresholds limits = ThresholdsFor(tol, n);

  double gnorm = Norm(g, n);
  if (gnorm < tol) {
    Report(checkpoint, 0, n, f, gnorm, nullptr, kLxNoOpt);
    return;
  }

  LxMallocaPtr block;
  const std::size_t scratchSize = geom::CycleStep::ScratchSize(n, cartesian_);
  double* const scratch = block.AllocateDoubles(scratchSize);
  if (scratch == nullptr) {
    LxThrow.Warning("out of memory allocating %d in LxBFGSOptimizer",
                    static_cast<int>(sizeof(double) * scratchSize));
    return;
  }
  geom::History& history = run.history;
  const bool elements = !atomicNumbers_.empty() && 3 * atomicNumbers_.size() == n;
  geom::CycleStep step(func, n, x, g, f, scratch, historyEnabled_ ? &history : nullptr, cartesian_,
                       elements ? atomicNumbers_.data() : nullptr);
  if (maxAtomStep_ > 0.0 && std::isfinite(maxAtomStep_)) step.CapAtomStep(maxAtomStep_);
  LxMallocaPtr surrogateBlock;
  double* const surrogateScratch =
      surrogate_ ? surrogateBlock.AllocateDoubles(geom::Surrogate::ScratchSize(n)) : nullptr;
  geom::Surrogate surrogate(n, surrogateScratch);
  if (surrogateScratch != nullptr) step.SetSurrogate(&surrogate);

  unsigned int iter = 0;
  double bestF = f;
  unsigned int stalled = 0;
  unsigned int componentCount = 0;
  double componentF = 0.0;
  double accuracy = kFirstAccuracy;

  auto cycles = [&]() -> Ending {
    for (;;) {
      const double previousF = f;
      double moved = 0.0;
      const geom::StepStatus status = step.Take(accuracy, moved);
      gnorm = Norm(g, n);
      if (status == geom::StepStatus::kNotFound) {
        Report(checkpoint, iter, n, f, gnorm, x, kLxNotFound);
        return Ending::kAlreadyReported;
      }
      if (status == geom::StepStatus::kEnded) {
        Report(checkpoint, iter, n, f, gnorm, x, kLxEnded);
        return Ending::kAlreadyReported;
      }
      ++iter;

      const double xnorm = Norm(x, n);
      const double displacement = xnorm != 0.0 ? moved / xnorm : moved;
      const double valueChange = std::fabs(previousF - f);

      if (bestF - f >= kStallDecrease) {
        stalled = 0;
        bestF = f;
      } else if (++stalled > kStallCycles) {
        Report(checkpoint, iter, n, f, gnorm, x, kLxStable);
        return Ending::kFinalState;
      }

      unsigned int converged = kLxCont;
      if (displacement > limits.displacement) {
        if (valueChange > limits.valueChange) {
          if (!(gnorm > limits.gradientFactor * tol)) converged = kLxGrad;
        } else {
          converged = kLxFval;
        }
      } else {
        converged = kLxDist;
      }
      if (converged != kLxCont) {
        Report(checkpoint, iter, n, f, gnorm, x, converged);
        if (ComponentsWithin(g, n, tol)) return Ending::kFinalState;
        if (++componentCount == 1) componentF = f;
        // Deliberate: the component limit travels in the gnorm argument.
        Report(checkpoint, iter, n, f, tol, x, kLxComp);
        if (std::fabs(f - componentF) > kComponentWindow) {
          componentCount = 0;
        } else if (componentCount > kComponentAttempts) {
          // Deliberate: the window travels in the value argument.
          Report(checkpoint, iter, n, kComponentWindow, gnorm, x, kLxNotJust);
          detail::Zero(g, n);
          return Ending::kAlreadyReported;
        }
      }

      if (iter >= iterLimit_) return Ending::kFinalState;
      accuracy = AccuracyFor(valueChange);
      if (valueChange > kHistoryResetChange) geom::ClearHistory(history);
      Report(checkpoint, iter, n, f, gnorm, x, kLxCont);
    }
  };

  // The limit is looked at only after a cycle, so a limit of 0 runs one.
  const Ending ending = cycles();
  if (ending == Ending::kFinalState)
    Report(checkpoint, iter, n, f, gnorm, x, iter >= iterLimit_ ? kLxExhaust : kLxDone);

  f = func(x);
  gnorm = Norm(g, n);
  if (keepHessian_ && gnorm < step.RestartGradientNorm()) {
    const double* h = step.InverseHessian();
    keptHessian_.assign(h, h + packed::Size(n));
  }
}

}  // namespace LxOpt
