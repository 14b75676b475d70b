// Line minimizers: the one-dimensional searches of the gradient optimizers.
#ifndef LXOPT_LINMIN_H
#define LXOPT_LINMIN_H

#include <limits>
#include <memory>

#include "lxopt/function.h"
#include "lxopt/lxopt_export.h"
#include "lxopt/optimizer.h"

namespace LxOpt {

// A search along x0 + a * dir. Contract of operator():
//   n        in      number of variables; every array has n entries
//   x0       in      start of the line (the optimizer's current point)
//   dir      in      search direction (a line minimizer may say it shortens it)
//   grad0    in      gradient at x0
//   gradOut  out     on success, the gradient at the accepted point
//   fval     in/out  value at x0 on entry; on success the accepted value
//   step     in/out  first trial step a on entry (a multiple of dir, not a
//                    distance); on success the accepted step
//   func     in      evaluated through its value-and-gradient operation
// Returns true when a value strictly below the entry value was accepted.
// The point itself is never written; the caller forms x0 + step * dir. On
// failure gradOut, fval and step keep their entry contents unless the
// minimizer says otherwise.
class LXOPT_API LxLineMinimize {
 public:
  virtual ~LxLineMinimize();
  // The search, with the arguments and result described above.
  virtual bool operator()(unsigned int n, const double* x0, double* dir, double* grad0,
                          double* gradOut, double* fval, double* step, LxFunc1& func) const = 0;
  // Per-variable step limits (In: n values at maxstep); returns whether the
  // minimizer took them. This base ignores them and returns false.
  virtual bool SetMaxStep(unsigned int n, double* maxstep);
  // A new heap copy, owned by the caller.
  virtual LxLineMinimize* CreateCopy() const = 0;
};

// The settings of the optimizers that search along directions with an owned
// line minimizer (the conjugate-gradient and quasi-Newton optimizers): the
// iteration limit, the tolerance on sum g^2 and the line minimizer. Copies
// and assignment give the target its own CreateCopy() of the source's line
// minimizer.
class LXOPT_API LxGradientOpt : public LxOptimizer1 {
 public:
  static constexpr unsigned int kDefaultIterLimit = 1000;
  static constexpr double kDefaultTolerance = 0.1;

  LxGradientOpt(const LxGradientOpt& other);
  LxGradientOpt& operator=(const LxGradientOpt& other);
  ~LxGradientOpt() override;

  // Largest number of iterations of a run; no range check.
  void SetIterLimit(unsigned int limit) override { iterLimit_ = limit; }
  // Converged when sum g^2 < tolerance (squared norm, strict); checkpoints
  // receive sqrt(sum g^2). No range check.
  void SetTolerance(double tolerance) override { tolerance_ = tolerance; }
  // The settings above, as last set or defaulted.
  unsigned int GetIterLimit() const override { return iterLimit_; }
  double GetTolerance() const override { return tolerance_; }

  // Replaces the owned line minimizer with lm.CreateCopy(); returns true.
  bool SetLineMinimize(const LxLineMinimize& lm);

 protected:
  // Limit 1000, tolerance 0.1 and the given line minimizer, which the object
  // owns from then on.
  explicit LxGradientOpt(LxLineMinimize* lineMinimize);
  // The owned line minimizer, for the derived optimizers' searches.
  LxLineMinimize& LineMinimizer() const { return *lineMinimize_; }

 private:
  unsigned int iterLimit_ = kDefaultIterLimit;
  double tolerance_ = kDefaultTolerance;
  std::unique_ptr<LxLineMinimize> lineMinimize_;
};

// The default search of the conjugate-gradient optimizers: safeguarded cubic
// interpolation with at most 32 evaluations. It accepts a trial when
//   f(a) <= f0 + 1e-4 a slope0   and   |slope(a) / slope0| <= 0.9,
// except that the first trial is accepted only with a practically zero slope
// (|slope(a) / slope0| <= 1e-10), so at least one interpolation is made.
// The first trial step is max(1e-10, *step). Returns true when the last value
// evaluated lies below the entry value and the entry step was at least 1e-10;
// on false nothing is written. When all 32 trials are spent, *step reports the
// next, unevaluated step while fval and gradOut belong to the last trial.
class LXOPT_API LxCGLineMinimize : public LxLineMinimize {
 public:
  // The search described above, with the base class's argument contract.
  bool operator()(unsigned int n, const double* x0, double* dir, double* grad0, double* gradOut,
                  double* fval, double* step, LxFunc1& func) const override;
  // A new heap copy with the same settings, owned by the caller.
  LxLineMinimize* CreateCopy() const override;
};

// The search of the quasi-Newton optimizers: the same cubic interpolation with
// the ordinary test, f(a) <= f0 + c1 a slope0 and |slope(a) / slope0| <= c2,
// which may end the search on the first trial. The first trial step is
// max(minStep, *step); at most maxTrials evaluations. Returns false, writing
// nothing, when the interpolation degenerates (two trials at the same step or
// with the same slope, as on a line where f is linear), when the last value is
// not below the entry value, or when the final step is below minStep. As with
// LxCGLineMinimize, spent trials report the next, unevaluated step.
class LXOPT_API LxQNLineMinimize : public LxLineMinimize {
 public:
  // maxTrials: evaluations per call; c1, c2: the constants of the test above;
  // minStep: floor of the first trial and of a successful final step.
  LxQNLineMinimize(unsigned int maxTrials = 32, double c1 = 1e-4, double c2 = 0.9,
                   double minStep = 1e-10);
  // The search described above, with the base class's argument contract.
  bool operator()(unsigned int n, const double* x0, double* dir, double* grad0, double* gradOut,
                  double* fval, double* step, LxFunc1& func) const override;
  // A new heap copy with the same settings, owned by the caller.
  LxLineMinimize* CreateCopy() const override;

 private:
  double c1_;               // sufficient decrease
  double c2_;               // curvature
  double minStep_;          // floor of the first and of a successful final step
  unsigned int maxTrials_;  // evaluations per call
};

// Honours a per-variable limit on the displacement of one search. When the
// entry step would move some variable i further than limits[i] (0: no limit;
// variables beyond the limit count are unlimited), the step a is cut to the
// smallest limits[i] / |dir[i]|, and the search marches from x0 in steps of a
// while the value keeps falling with a negative slope, until the descent
// stops or the entry step is reached (no count of steps: a march from a far
// entry step is long). Where the descent stops at s, *step is lowered to
// s - a/2 (if that is smaller). A march that meets a value or slope that is
// not finite, or whose position no longer moves (s + a rounds to s), ends
// there without a change of *step. The search is
// then handed to an embedded LxQNLineMinimize with the caller's arguments, so
// all results are that minimizer's; the march writes nothing else. With no
// cut the call goes straight to the embedded minimizer.
class LXOPT_API LxMaxStepLineMinimize : public LxLineMinimize {
 public:
  // No limits: every call goes straight to the embedded minimizer.
  LxMaxStepLineMinimize();
  LxMaxStepLineMinimize(double* maxstep, unsigned int n);  // copies n limits
  // Copies take their own copy of the limits.
  LxMaxStepLineMinimize(const LxMaxStepLineMinimize& other);
  LxMaxStepLineMinimize& operator=(const LxMaxStepLineMinimize& other);
  ~LxMaxStepLineMinimize() override;

  // The limited march, then the embedded search, as described above.
  bool operator()(unsigned int n, const double* x0, double* dir, double* grad0, double* gradOut,
                  double* fval, double* step, LxFunc1& func) const override;
  // Replaces the limits with a copy of n values and returns true; n = 0
  // changes nothing and returns false.
  bool SetMaxStep(unsigned int n, double* maxstep) override;
  // A new heap copy with the same settings, owned by the caller.
  LxLineMinimize* CreateCopy() const override;

 private:
  unsigned int count_ = 0;
  double* limits_ = nullptr;  // malloc'ed, count_ entries
  LxQNLineMinimize inner_;
};

// Backtracking along dir with the sufficient-decrease test only,
//   f(a) <= f0 + 1e-4 a slope0,
// first a quadratic then cubic interpolation of the step (each new step at
// least 0.1 a, at most 0.5 a). It evaluates values alone while it searches
// and value and gradient once at the point where it stops. It differs from
// the other line minimizers in two ways:
//  - dir is shortened in the caller's array when its length exceeds the
//    maximum step, which SetMaxStep(n, x) sets to max(|x|, n) (a new object
//    and every CreateCopy have no cap);
//  - fval, step and gradOut are written on failure too, describing the last
//    trial point, not x0.
// Fails when the step falls below 1e-7 / max_i(|dir_i| / max(|x0_i|, 1)),
// which is at once when n = 0 or dir is zero. initialStepMode 1 starts every
// search at a = 1.0; any other mode at the caller's *step.
class LXOPT_API LxNRLineSearch : public LxLineMinimize {
 public:
  // initialStepMode: 1 starts every search at 1.0, else at *step. No cap on
  // the direction length until SetMaxStep.
  explicit LxNRLineSearch(int initialStepMode = 0);

  // The backtracking search described above; unlike the base contract it
  // may shorten dir and writes fval, step and gradOut on failure too.
  bool operator()(unsigned int n, const double* x0, double* dir, double* grad0, double* gradOut,
                  double* fval, double* step, LxFunc1& func) const override;
  // Maximum direction length max(|x|, n) for x of n values; always true.
  bool SetMaxStep(unsigned int n, double* x) override;
  // A new heap copy with the same settings, owned by the caller.
  LxLineMinimize* CreateCopy() const override;

 private:
  double maxStep_;
  int initialStepMode_;
};

// The search of the geometry driver (LxBFGSOptimizer): Moré and Thuente's
// safeguarded interpolation (ACM TOMS 20 (1994) 286) for a step meeting the
// strong Wolfe conditions,
//   f(a) <= f0 + 1e-4 a slope0   and   |slope(a)| <= 0.9 |slope0|,
// with at most 20 evaluations, each of value and gradient. Near a minimum,
// where f(a) - f0 sinks below the rounding of the values, a trial whose value
// lies within 16 ulps of f0 is judged by its slope alone and accepted when
// |slope(a)| <= 0.3 |slope0|. The first trial is min(*step, step limit); no
// trial goes beyond the step limit (a multiple of dir), and a trial at the
// limit that still goes down steeply (slope <= 1e-4 slope0) is accepted there.
// Once its bracket is narrower than accuracy times its upper end, or the
// trials are spent, the search settles for the lowest point evaluated.
// Returns true when a step was accepted; unlike the base contract the value
// accepted may be level with the entry value to rounding. Fails at once,
// evaluating nothing, when dir does not point downhill (grad0 . dir not
// negative). On false nothing is written.
class LXOPT_API LxMoreThuenteLineMinimize : public LxLineMinimize {
 public:
  // How Search ended: found as operator() returns it; capped when the accepted
  // step is at the step limit and was taken there for want of a Wolfe point.
  struct Outcome {
    bool found;
    bool capped;
  };

  // No step limit, accuracy 0.01.
  LxMoreThuenteLineMinimize() = default;

  // The search described above, with the base class's argument contract
  // (but for the level values above).
  bool operator()(unsigned int n, const double* x0, double* dir, double* grad0, double* gradOut,
                  double* fval, double* step, LxFunc1& func) const override;
  // The same search with the trial point and gradient in work (2 n doubles),
  // or in a block of its own when work is null, reporting whether it was
  // capped.
  Outcome Search(unsigned int n, const double* x0, const double* dir, const double* grad0,
                 double* gradOut, double* fval, double* step, LxFunc1& func, double* work) const;
  // A new heap copy with the same settings, owned by the caller.
  LxLineMinimize* CreateCopy() const override;

  // Largest step a, a multiple of dir (infinite: no limit).
  void SetStepLimit(double limit) { stepLimit_ = limit; }
  double GetStepLimit() const { return stepLimit_; }
  // Relative bracket width at which the search stops refining.
  void SetAccuracy(double accuracy) { accuracy_ = accuracy; }
  double GetAccuracy() const { return accuracy_; }

 private:
  double stepLimit_ = std::numeric_limits<double>::infinity();
  double accuracy_ = 0.01;
};

}  // namespace LxOpt

#endif  // LXOPT_LINMIN_H
