// Tools around the optimizers: an evaluation-counting objective wrapper, a
// checkpoint that stops a run when a budget is spent, a checkpoint that
// records a trace, and checks of analytic derivatives against central
// differences.
#ifndef LXOPT_TOOLS_H
#define LXOPT_TOOLS_H

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "lxopt/coordfunc.h"
#include "lxopt/function.h"
#include "lxopt/lxopt_export.h"
#include "lxopt/optimizer.h"

namespace LxOpt {

// ------------------------------------------------------------ counting

// Forwards every operation to an objective (borrowed: keep it alive) and
// counts the evaluations of each kind with their wall time. Wrapping an
// LxFunc0 or LxFunc1, the operations that objective lacks report an error and
// return 0.0 (gradient) or false (Hessian) without being counted.
//
// With the non-finite guard on, a value that is NaN or infinite is returned
// as the largest finite double instead, so that line searches treat the point
// as merely very bad and step back; the first such point is kept.
class LXOPT_API LxCountingFunc : public LxFunc2 {
 public:
  // func: the wrapped objective (borrowed); its kind decides which
  // operations forward.
  explicit LxCountingFunc(LxFunc0& func);
  explicit LxCountingFunc(LxFunc1& func);
  explicit LxCountingFunc(LxFunc2& func);

  using LxFunc2::operator();
  // Each operation below forwards to the wrapped objective with the same
  // arguments and result. The three evaluations and the block evaluation
  // (counted as a value call) are counted and timed; NumVar, GetFComponents,
  // CheckVariablesValidity and IsRedundant are not counted, and the last two
  // fall back to the LxFunc1 defaults when wrapping an LxFunc0.
  unsigned int NumVar() const override;
  double operator()(const double* x) override;
  double operator()(const double* x, double* grad) override;
  bool operator()(const double* x, double* hessian, double* grad) override;
  std::vector<double> operator()(float** blocks) override;
  std::vector<LxFComponent> GetFComponents(const double* x) override;
  bool CheckVariablesValidity(const double* x) override;
  bool IsRedundant(const double* a, const double* b, double tolerance) const override;

  // Value-only calls, value-and-gradient calls, Hessian calls.
  std::uint64_t Values() const { return values_; }
  std::uint64_t Gradients() const { return gradients_; }
  std::uint64_t Hessians() const { return hessians_; }
  std::uint64_t Total() const { return values_ + gradients_ + hessians_; }
  // Wall time spent inside each kind of call, in seconds.
  double ValueSeconds() const { return valueSeconds_; }
  double GradientSeconds() const { return gradientSeconds_; }
  double HessianSeconds() const { return hessianSeconds_; }
  // Zeroes the counts and times and forgets the guarded point.
  void Reset();

  // Switches the non-finite guard described above; off by default.
  void SetNonFiniteGuard(bool on) { guard_ = on; }
  bool GetNonFiniteGuard() const { return guard_; }
  // Values the guard replaced, and the first point where that happened
  // (empty while none was).
  std::uint64_t NonFiniteCount() const { return nonFinite_; }
  const std::vector<double>& FirstNonFinitePoint() const { return firstNonFinite_; }

 private:
  double Guard(double value, const double* x);

  LxFunc0& f0_;
  LxFunc1* f1_;
  LxFunc2* f2_;
  std::uint64_t values_ = 0, gradients_ = 0, hessians_ = 0, nonFinite_ = 0;
  double valueSeconds_ = 0.0, gradientSeconds_ = 0.0, hessianSeconds_ = 0.0;
  bool guard_ = false;
  std::vector<double> firstNonFinite_;
};

// ------------------------------------------------------------ budget

// Passes every report on to another checkpoint (or none) and answers false to
// a state-0 report once a budget is spent: the evaluations counted by an
// LxCountingFunc (all kinds together) or the wall time since construction or
// Restart(). Reports in other states, and state-0 reports within budget,
// return the wrapped checkpoint's answer (true without one).
//
// A false answer stops conjugate gradients (LxConjGradOpt and the
// LxBetaConjGradOpt family) and the quasi-Newton optimizers (LxBFGSOpt,
// LxBFGSModOpt, LxDFPOpt), which then report state 11. The others run on
// regardless: steepest descent, the Newton optimizers and the geometry driver
// ignore the answer; annealing passes the checkpoint to its final BFGS only.
class LXOPT_API LxBudgetCheckpoint : public LxCheckpoint1 {
 public:
  // next: the checkpoint to chain to (may be null, not owned).
  explicit LxBudgetCheckpoint(LxCheckpoint1* next = nullptr);

  // Stops once counted.Total() >= limit; counted is borrowed.
  void SetEvaluationBudget(const LxCountingFunc& counted, std::uint64_t limit);
  // Stops once this many seconds have passed; <= 0 switches the limit off.
  void SetTimeBudget(double seconds) { seconds_ = seconds; }
  // Restarts the clock and clears Exhausted().
  void Restart();
  // Whether a state-0 report was answered false for the budget.
  bool Exhausted() const { return exhausted_; }
  // Whether a budget is spent now: Total() >= the evaluation limit (when
  // set) or, with a time budget, elapsed seconds >= the limit.
  bool Spent() const;

  // The two report forms: handled as described above; returns the answer.
  bool operator()(unsigned int iter, unsigned int nvar, double fval, const double* vars,
                  unsigned int state) override;
  bool operator()(unsigned int iter, unsigned int nvar, double fval, double gnorm,
                  const double* vars, const double* grad, unsigned int state) override;

 private:
  bool Answer(bool nextAnswer, unsigned int state);

  LxCheckpoint1* next_;
  const LxCountingFunc* counted_ = nullptr;
  std::uint64_t evaluationLimit_ = 0;
  double seconds_ = 0.0;
  std::chrono::steady_clock::time_point start_;
  bool exhausted_ = false;
};

// ------------------------------------------------------------ trace

// One checkpoint call. gnorm is NaN for value-only reports; hasGradient is
// false when the gradient pointer was null; x is empty unless points are
// recorded.
struct LxTraceEntry {
  unsigned int iter;
  double fval;
  double gnorm;
  unsigned int state;
  bool hasGradient;
  std::vector<double> x;
};

// Records every call in memory, then passes it on to another checkpoint (or
// none) and returns its answer (true without one).
class LXOPT_API LxTraceCheckpoint : public LxCheckpoint1 {
 public:
  // next: the checkpoint to chain to (may be null, not owned). With
  // recordPoints each entry also copies the variables.
  explicit LxTraceCheckpoint(LxCheckpoint1* next = nullptr, bool recordPoints = false);

  // The two report forms: handled as described above; returns the answer.
  bool operator()(unsigned int iter, unsigned int nvar, double fval, const double* vars,
                  unsigned int state) override;
  bool operator()(unsigned int iter, unsigned int nvar, double fval, double gnorm,
                  const double* vars, const double* grad, unsigned int state) override;

  // The calls recorded so far, in order; Clear forgets them.
  const std::vector<LxTraceEntry>& Entries() const { return entries_; }
  void Clear() { entries_.clear(); }

  // CSV with the header "iter,value,gnorm,state,x0,x1,..." (x columns only
  // when points are recorded; state by name), values with 17 digits.
  void WriteCsv(std::ostream& out) const;
  // False with a warning when the file cannot be written.
  bool WriteCsv(const std::string& path) const;

 private:
  LxCheckpoint1* next_;
  bool recordPoints_;
  std::vector<LxTraceEntry> entries_;
};

// ------------------------------------------------------------ derivative check

// Analytic against numeric derivatives, component by component:
//   error_i = |analytic_i - numeric_i| / max(|analytic_i|, |numeric_i|, floor)
// so components smaller than the floor are compared absolutely. The numeric
// values are central differences (f(x + h e_i) - f(x - h e_i)) / 2h. For a
// Hessian the components are the packed lower triangle, (i, j) at
// i(i+1)/2 + j, from central differences of the analytic gradient averaged
// over (i, j) and (j, i).
struct LxDerivativeCheck {
  std::vector<double> analytic;
  std::vector<double> numeric;
  std::vector<double> error;
  unsigned int worst = 0;  // index of the largest error (0 when empty)
  double worstError = 0.0;
  double tolerance = 0.0;
  bool passed = true;  // worstError <= tolerance
};

// Settings of a derivative check.
struct LxDerivativeCheckOptions {
  double step = 1e-5;       // h
  double floor = 1e-3;      // smallest denominator of a relative error
  double tolerance = 1e-4;  // largest error that passes
};

// The gradient of func at x (n = func.NumVar() values; x is not changed).
// Costs one value-and-gradient call and 2n value calls.
LXOPT_API LxDerivativeCheck LxCheckGradient(LxFunc1& func, const double* x,
                                            const LxDerivativeCheckOptions& options = {});
// The packed Hessian of func at x. Costs one Hessian call and 2n
// value-and-gradient calls. A Hessian call that returns false reports an
// error and yields an empty, failed result.
LXOPT_API LxDerivativeCheck LxCheckHessian(LxFunc2& func, const double* x,
                                           const LxDerivativeCheckOptions& options = {});

// The gradient check of a coordinate objective plus its invariances, reported
// separately: with g_a the gradient on atom a and c the centroid,
//   translation residual |sum_a g_a|, rotation residual |sum_a (r_a - c) x g_a|,
// each divided by max(sum_a |g_a|, floor) (rotation: sum_a |r_a - c||g_a|).
// A translation failure alone points to an external field; a rotation failure
// to a field or a gradient bug.
struct LxCoordDerivativeCheck {
  LxDerivativeCheck gradient;
  double translationResidual = 0.0;  // relative, as above
  double rotationResidual = 0.0;
  bool translationInvariant = true;  // residual <= tolerance
  bool rotationInvariant = true;
};

// The gradient check of func at x (3N coordinates; not changed) with the
// invariance residuals, each compared with options.tolerance.
LXOPT_API LxCoordDerivativeCheck LxCheckGradient(LxCoordFunc1& func, const double* x,
                                                 const LxDerivativeCheckOptions& options = {});

// A readable multi-line report: verdict, worst component, and the components
// whose error exceeds the tolerance (at most maxLines of them).
LXOPT_API std::string LxFormatDerivativeCheck(const LxDerivativeCheck& check,
                                              unsigned int maxLines = 10);
// The same for a coordinate check, with its invariance verdicts.
LXOPT_API std::string LxFormatDerivativeCheck(const LxCoordDerivativeCheck& check,
                                              unsigned int maxLines = 10);

}  // namespace LxOpt

#endif  // LXOPT_TOOLS_H
