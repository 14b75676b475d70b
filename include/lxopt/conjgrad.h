// Conjugate-gradient optimizers: Shanno's memoryless quasi-Newton directions
// (LxConjGradOpt) and the classic Fletcher-Reeves, Polak-Ribiere and
// Hestenes-Stiefel family.
#ifndef LXOPT_CONJGRAD_H
#define LXOPT_CONJGRAD_H

#include <memory>

#include "lxopt/linmin.h"
#include "lxopt/lxopt_export.h"
#include "lxopt/optimizer.h"

namespace LxOpt {

// Settings shared by the conjugate-gradient optimizers: the iteration limit,
// the tolerance and one owned line minimizer (by default an LxCGLineMinimize).
// Copies get their own CreateCopy() of the line minimizer.
class LXOPT_API LxConjGradBase : public LxOptimizer1 {
 public:
  static constexpr unsigned int kDefaultIterLimit = 1000;
  static constexpr double kDefaultTolerance = 0.1;

  // Default limit and tolerance with an LxCGLineMinimize.
  LxConjGradBase();
  LxConjGradBase(const LxConjGradBase& other);
  LxConjGradBase& operator=(const LxConjGradBase& other);
  ~LxConjGradBase() override;

  // A limit of 0 or 1 ends the run before the first line search ("Exhaust").
  void SetIterLimit(unsigned int limit) override { iterLimit_ = limit; }
  // Converged when sum g^2 < tolerance (squared norm, strict); checkpoints
  // receive sqrt(sum g^2).
  void SetTolerance(double tolerance) override { tolerance_ = tolerance; }
  // The settings above, as last set or defaulted.
  unsigned int GetIterLimit() const override { return iterLimit_; }
  double GetTolerance() const override { return tolerance_; }

  // Replaces the owned line minimizer with lm.CreateCopy(); returns true.
  bool SetLineMinimize(const LxLineMinimize& lm);

 protected:
  // The owned line minimizer, for the derived optimizers' searches.
  const LxLineMinimize& LineMinimizer() const { return *lineMinimize_; }

 private:
  unsigned int iterLimit_ = kDefaultIterLimit;
  double tolerance_ = kDefaultTolerance;
  std::unique_ptr<LxLineMinimize> lineMinimize_;
};

// Conjugate gradients with Shanno's memoryless BFGS directions and Beale
// restarts: between restarts d = -H g, with H the scaled one-pair inverse
// BFGS matrix of the restart pair updated once more by the latest step. A
// restart (new pair, first trial step 1.0) comes every n iterations and when
// successive gradients lose orthogonality, |g_new . g| / |g_new|^2 > 0.2.
// First trial steps: 1/|g| at the start and after a recovery, 1.0 after a
// restart, otherwise the last step times the ratio of old to new slope.
//
// Exits (checkpoints receive |g| and the gradient; out holds the point of the
// returned value on every exit):
//   1 NoOpt    sum g^2 < tolerance at the start (iteration 0).
//   9 Grad     sum g^2 < tolerance after an accepted step.
//   3 NotFound the line search failed twice in a row. After a single failure
//              the run re-evaluates the gradient and retries along -g.
//   11 Done    the state-0 report answered false (reported with the same
//              iteration, value and norm).
//   6 Exhaust  the iteration counter reached the limit (a limit of 0 or 1
//              reports iteration 1 without searching).
// A null out warns "memory not provided for optimized variables" and returns
// 0.0.
class LXOPT_API LxConjGradOpt : public LxConjGradBase {
 public:
  using LxOptimizer1::operator();
  // Minimizes func from x0 (n doubles) into x (n doubles); returns the value
  // at x as listed under the exits above.
  double operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* x0, double* x) override;
  // How the last run ended.
  const LxRunSummary& LastRun() const override { return lastRun_; }

 private:
  double Run(LxFunc1& func, LxCheckpoint1* checkpoint, const double* x0, double* x);
  LxRunSummary lastRun_;
};

// The classic nonlinear conjugate gradients d = -g_new + beta d, one loop for
// the three coefficients. A restart to d = -g_new comes when the counter of
// iterations since the last restart reaches n, when |g_new . g| / |g_new|^2 >
// 0.2, or when the gradient converges after a conjugate step.
//
// Exits (the state-0 and Done reports pass a null gradient pointer):
//   1 NoOpt    sum g^2 < tolerance at the start (iteration 0, gradient given).
//   silent     sum g_new^2 < tolerance right after a steepest-descent step, or
//              a failed search along a steepest-descent direction: the run
//              returns after the last state-0 report, with no further call.
//   11 Done    the state-0 report answered false.
//   6 Exhaust  the iteration counter reached the limit (limit 0 or 1 as for
//              LxConjGradOpt).
// Deliberate: a failed search along a conjugate direction still moves the point
// by the step that stood before the search, keeps the old value and forces a
// restart.
class LXOPT_API LxBetaConjGradOpt : public LxConjGradBase {
 public:
  // Formula for beta, with g the previous gradient and d the previous
  // direction.
  enum class Beta {
    kFletcherReeves,   // (g_new . g_new) / (g . g)
    kPolakRibiere,     // (g_new . (g_new - g)) / (g . g), may be negative
    kHestenesStiefel,  // (g_new . (g_new - g)) / (d . (g_new - g))
  };

  using LxOptimizer1::operator();
  // Minimizes func from x0 (n doubles) into x (n doubles); returns the value
  // at x as listed under the exits above.
  double operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* x0, double* x) override;
  // How the last run ended.
  const LxRunSummary& LastRun() const override { return lastRun_; }

 protected:
  // beta: the coefficient formula; chosen by the named subclasses below.
  explicit LxBetaConjGradOpt(Beta beta) : beta_(beta) {}

 private:
  double Run(LxFunc1& func, LxCheckpoint1* checkpoint, const double* x0, double* x);
  Beta beta_;
  LxRunSummary lastRun_;
  unsigned int silentState_ = kLxCont;  // how the current run ended silently
};

// The family with the Fletcher-Reeves coefficient.
class LXOPT_API LxFletcherReevesOpt : public LxBetaConjGradOpt {
 public:
  LxFletcherReevesOpt() : LxBetaConjGradOpt(Beta::kFletcherReeves) {}
};

// The family with the Polak-Ribiere coefficient.
class LXOPT_API LxRibierePolakOpt : public LxBetaConjGradOpt {
 public:
  LxRibierePolakOpt() : LxBetaConjGradOpt(Beta::kPolakRibiere) {}
};

// The family with the Hestenes-Stiefel coefficient.
class LXOPT_API LxHestenesStiefelOpt : public LxBetaConjGradOpt {
 public:
  LxHestenesStiefelOpt() : LxBetaConjGradOpt(Beta::kHestenesStiefel) {}
};

}  // namespace LxOpt

#endif  // LXOPT_CONJGRAD_H
