// Simulated annealing with adaptive step lengths (Corana, Marchesi, Martini &
// Ridella, "Minimizing multimodal functions of continuous variables with the
// simulated annealing algorithm", ACM TOMS 13 (1987) 262), finished by BFGS.
//
// Names: v step lengths, nacc accepted moves per variable, xopt/fopt the best
// point, history the values at the last four temperature steps.
#include <cmath>

#include "framework/run_record.h"
#include "lxopt/anneal.h"
#include "lxopt/quasinewton.h"

namespace LxOpt {
namespace {

constexpr double kBox = 10000.0;            // coordinates stay in [-kBox, kBox]
constexpr double kMaxStepLength = 20000.0;  // the width of the box
constexpr double kHighAcceptance = 0.6;
constexpr double kLowAcceptance = 0.4;
constexpr double kHistoryStart = 1e20;
constexpr unsigned int kHistorySize = 4;

// Step length adjustment from the acceptance ratio q (Corana et al., eq. 4
// with c = 2): grow above 0.6, shrink below 0.4.
double AdjustedStep(double v, double q) {
  if (q > kHighAcceptance) {
    v *= 1.0 + 2.0 * (q - kHighAcceptance) / kLowAcceptance;
  } else if (q < kLowAcceptance) {
    v /= 1.0 + 2.0 * (kLowAcceptance - q) / kLowAcceptance;
  }
  return v > kMaxStepLength ? kMaxStepLength : v;
}

}  // namespace

LxSAOpt::LxSAOpt(double temperature)
    : temperature_(temperature), local_(new LxBFGSOpt()), random_(true) {
  random_.Seed(kSeed);
}

LxSAOpt::LxSAOpt(const LxSAOpt& other)
    : LxOptimizer1(other),
      temperature_(other.temperature_),
      stepCycles_(other.stepCycles_),
      adjustmentsPerTemperature_(other.adjustmentsPerTemperature_),
      evaluationLimit_(other.evaluationLimit_),
      tolerance_(other.tolerance_),
      coolingFactor_(other.coolingFactor_),
      local_(new LxBFGSOpt()),
      random_(true) {
  random_.Seed(kSeed);
}

LxSAOpt& LxSAOpt::operator=(const LxSAOpt& other) {
  if (this == &other) return *this;
  temperature_ = other.temperature_;
  stepCycles_ = other.stepCycles_;
  adjustmentsPerTemperature_ = other.adjustmentsPerTemperature_;
  evaluationLimit_ = other.evaluationLimit_;
  tolerance_ = other.tolerance_;
  coolingFactor_ = other.coolingFactor_;
  local_.reset(new LxBFGSOpt());
  random_ = LxRandom(true);
  random_.Seed(kSeed);
  return *this;
}

LxSAOpt::~LxSAOpt() = default;

double LxSAOpt::FinalMinimization(LxFunc1& func, LxCheckpoint1* checkpoint, const double* xopt,
                                  double* x) {
  return (*local_)(func, checkpoint, xopt, x);
}

double LxSAOpt::operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* x0, double* x) {
  return detail::RecordRun(
      lastRun_, func, checkpoint, true,
      [&](LxFunc1& counted, LxCheckpoint1* recorder) { return Run(counted, recorder, x0, x); });
}

double LxSAOpt::Run(LxFunc1& func, LxCheckpoint1* checkpoint, const double* x0, double* x) {
  const unsigned int n = func.NumVar();
  double t = temperature_;
  LxThrow.Info("Initial temperature = %10.2f", t);
  if (x == nullptr) {
    LxThrow.Warning("memory not provided for optimized variables");
    return 0.0;
  }

  // history (4), v, xp, xopt (n each), then nacc (n unsigned).
  const std::size_t doubles = kHistorySize + 3 * std::size_t(n);
  LxMallocaPtr block;
  if (block.Allocate(doubles * sizeof(double) + std::size_t(n) * sizeof(unsigned int)) == nullptr) {
    LxThrow.Warning("out of memory allocating %d in LxSAOpt",
                    static_cast<int>(doubles * sizeof(double) + n * sizeof(unsigned int)));
    return 0.0;
  }
  double* const history = block.doubles();
  double* const v = history + kHistorySize;
  double* const xp = v + n;
  double* const xopt = xp + n;
  unsigned int* const nacc = reinterpret_cast<unsigned int*>(xopt + n);
  for (unsigned int k = 0; k < kHistorySize; ++k) history[k] = kHistoryStart;
  for (unsigned int i = 0; i < n; ++i) {
    v[i] = 1.0;
    nacc[i] = 0;
    xopt[i] = x0[i];
    x[i] = x0[i];
    xp[i] = x0[i];
  }

  double f = func(x);
  // Without variables no move is made and f never changes: the loop below
  // still runs, and converges once the history holds f four times, unless
  // the test can never pass (a tolerance of 0 or less, or an f that is not
  // finite, for which f - f is not a number). Only then, where the loop
  // would never end, is it skipped.
  if (n == 0 && !(f - f < tolerance_)) return FinalMinimization(func, checkpoint, xopt, x);
  history[0] = f;
  double fopt = f;
  unsigned int nev = 0;

  for (;;) {
    lxout << "T = " << t << lxendl;
    for (unsigned int adjustment = 0; adjustment < adjustmentsPerTemperature_; ++adjustment) {
      for (unsigned int cycle = 0; cycle < stepCycles_; ++cycle) {
        for (unsigned int h = 0; h < n; ++h) {
          // xp equals x outside this move.
          xp[h] = x[h] + (2.0 * random_.NextFloat() - 1.0) * v[h];
          if (xp[h] > kBox || !(xp[h] >= -kBox)) xp[h] = 2.0 * kBox * random_.NextFloat() - kBox;
          const double fp = func(xp);
          if (++nev >= evaluationLimit_) {
            // Deliberate: the value of this last evaluation is not used.
            LxThrow.Warning("Number of function evaluation exceeded");
            return FinalMinimization(func, checkpoint, xopt, x);
          }
          if (fp <= f) {
            x[h] = xp[h];
            f = fp;
            ++nacc[h];
            if (fp < fopt) {
              lxout << "new minimum " << f << lxendl;
              for (unsigned int i = 0; i < n; ++i) xopt[i] = xp[i];
              fopt = fp;
            }
          } else {
            // Metropolis: accept a rise df with probability exp(-df / (R T)).
            const double p = std::exp(-(fp - f) / (kGasConstant * t));
            if (p >= random_.NextFloat()) {
              x[h] = xp[h];
              f = fp;
              ++nacc[h];
            } else {
              xp[h] = x[h];
            }
          }
        }
      }
      for (unsigned int i = 0; i < n; ++i) {
        v[i] = AdjustedStep(v[i], static_cast<double>(nacc[i]) / stepCycles_);
        nacc[i] = 0;
      }
    }

    history[0] = f;
    bool converged = f - fopt < tolerance_;
    for (unsigned int k = 1; k < kHistorySize; ++k)
      converged = converged && !(std::fabs(history[k] - f) > tolerance_);
    if (converged) break;

    t *= coolingFactor_;
    for (unsigned int k = kHistorySize - 1; k > 1; --k) history[k] = history[k - 1];
    history[1] = f;
    // Restart from the best point. Deliberate: f keeps the last accepted
    // value, so the next comparisons are made against it.
    for (unsigned int i = 0; i < n; ++i) x[i] = xp[i] = xopt[i];
  }

  LxThrow.Info("Normal exit, total evaluations = %d  Final temperature =%6.2fK",
               static_cast<int>(nev), t);
  return FinalMinimization(func, checkpoint, xopt, x);
}

}  // namespace LxOpt
