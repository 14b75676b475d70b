// Optimizer bases, per-iteration checkpoints and the result states.
#ifndef LXOPT_OPTIMIZER_H
#define LXOPT_OPTIMIZER_H

#include <cstdint>
#include <limits>

#include "lxopt/function.h"
#include "lxopt/lxopt_export.h"

namespace LxOpt {

// Result states passed to checkpoints. What each leaves in `out` and returns
// is stated by the optimizer that reports it.
enum LxOptState : unsigned int {
  kLxCont = 0,      // "Cont": per-iteration report; the run continues
  kLxNoOpt = 1,     // "NoOpt": the start already met the test; no step taken
  kLxOneVar = 2,    // "OneVar": one-variable case (geometry driver)
  kLxNotFound = 3,  // "NotFound": no lower value along the direction
  kLxEnded = 4,     // "Ended": ended by the geometry driver's own rules
  kLxNotJust = 5,   // "NotJust": further steps not justified (geometry driver)
  kLxExhaust = 6,   // "Exhaust": iteration limit reached
  kLxDist = 7,      // "Dist": converged on displacement
  kLxFval = 8,      // "Fval": converged on the function value
  kLxGrad = 9,      // "Grad": converged on the gradient
  kLxComp = 10,     // "Comp": converged on gradient components
  kLxDone = 11,     // "Done": converged, or stopped on the checkpoint's request
  kLxStable = 12,   // "Stable": the run has stabilised
};

// In: state, a result code. Returns its short name ("Cont", "NoOpt", ...);
// "" for codes above 12, never null. The pointer stays valid for the process.
LXOPT_API const char* LxGetStateName(unsigned int state);

// Whether a final state means that the run met a convergence test:
//   1 NoOpt, 7 Dist, 8 Fval, 9 Grad, 10 Comp and 11 Done (of a run the
//   checkpoint did not stop) do;
//   0 Cont (no final state: the run refused its input or failed), 2 OneVar,
//   3 NotFound, 4 Ended, 5 NotJust (a convergence test passed but the
//   component test cannot be met), 6 Exhaust and 12 Stable (a stall, not a
//   passed test) do not, nor any code above 12.
LXOPT_API bool LxStateMeansConvergence(unsigned int state);

// How the last run of an optimizer ended; every optimizer of the library
// fills it on every exit, the refusals of bad input included.
struct LxRunSummary {
  // The state that decides the run: the last final state reported, except
  // that a closing Done after another final state (geometry driver) leaves
  // that state. 0 (Cont) when the run ended without a final state: it refused
  // its input or its objective failed, and the 0.0 it returned is no minimum.
  // The conjugate-gradient family that ends some runs silently records Grad
  // for its silent convergence and NotFound for its silent failed search.
  unsigned int state = 0;
  // Iteration of the deciding report (or of the last report).
  unsigned int iterations = 0;
  // Objective calls of every kind (values, gradients, Hessians).
  std::uint64_t evaluations = 0;
  // The value the run returned.
  double value = std::numeric_limits<double>::quiet_NaN();
  // Euclidean norm and largest absolute component of the gradient passed
  // with the deciding report; without a gradient there the norm is the one
  // reported (Euclidean) and the largest component is NaN. NaN when nothing
  // was reported.
  double gradientNorm = std::numeric_limits<double>::quiet_NaN();
  double gradientMax = std::numeric_limits<double>::quiet_NaN();
  // The checkpoint answered false and the run ended on that request.
  bool stoppedByCheckpoint = false;
  // LxStateMeansConvergence(state) and not stoppedByCheckpoint.
  bool converged = false;
};

// Per-iteration callback of value-only optimizers. Returning false from a
// report with state 0 asks the optimizer to stop (where it honours that).
class LXOPT_API LxCheckpoint0 {
 public:
  // In: iter, the iteration count; nvar, the number of variables; fval, the
  // current value; vars, the nvar current variables (valid during the call
  // only); state, 0 for a per-iteration report or the final result state.
  // Returns true to continue, false to ask for a stop.
  virtual bool operator()(unsigned int iter, unsigned int nvar, double fval, const double* vars,
                          unsigned int state) = 0;
  virtual ~LxCheckpoint0();
};

// Per-iteration callback of gradient and Hessian optimizers. gnorm is the
// Euclidean gradient norm, or the root-mean-square gradient for the Newton
// optimizers; vars and grad are valid only during the call (grad may be null
// where an optimizer says so).
class LXOPT_API LxCheckpoint1 : public LxCheckpoint0 {
 public:
  // The value-only form; this default accepts and continues.
  bool operator()(unsigned int iter, unsigned int nvar, double fval, const double* vars,
                  unsigned int state) override;
  ~LxCheckpoint1() override;
  // In: iter, nvar, fval, vars and state as for the value-only form; gnorm,
  // the gradient norm described above; grad, the nvar gradient components or
  // null. Returns true to continue, false to ask for a stop (state 0 only).
  virtual bool operator()(unsigned int iter, unsigned int nvar, double fval, double gnorm,
                          const double* vars, const double* grad, unsigned int state) = 0;
};

// Base of the value-only optimizers. Each run borrows the objective and the
// checkpoint for its duration.
class LXOPT_API LxOptimizer0 {
 public:
  // Largest number of iterations of a run.
  virtual void SetIterLimit(unsigned int limit) = 0;
  // Convergence threshold; each optimizer states the exact test it controls.
  virtual void SetTolerance(double tolerance) = 0;
  // Same as the four-argument form with a null checkpoint.
  virtual double operator()(LxFunc0& func, const double* start, double* out);
  // Minimizes func from start (In: func.NumVar() doubles), reporting to
  // checkpoint (may be null); Out: out receives the final variables. Returns
  // the final value. What each result state leaves is stated by the optimizer.
  virtual double operator()(LxFunc0& func, LxCheckpoint0* checkpoint, const double* start,
                            double* out) = 0;
  virtual ~LxOptimizer0();
};

// Base of the optimizers that use values and gradients.
class LXOPT_API LxOptimizer1 {
 public:
  // Largest number of iterations of a run.
  virtual void SetIterLimit(unsigned int limit) = 0;
  // Convergence threshold; each optimizer states the exact test it controls.
  virtual void SetTolerance(double tolerance) = 0;
  // The settings above, as last set or defaulted.
  virtual unsigned int GetIterLimit() const = 0;
  virtual double GetTolerance() const = 0;
  // Same as the four-argument form with a null checkpoint.
  virtual double operator()(LxFunc1& func, const double* start, double* out);
  // Minimizes func from start (In: func.NumVar() doubles), reporting to
  // checkpoint (may be null); Out: out receives the final variables. Returns
  // the final value. out may equal start.
  virtual double operator()(LxFunc1& func, LxCheckpoint1* checkpoint, const double* start,
                            double* out) = 0;
  virtual ~LxOptimizer1();
  // How the last run ended; the library's optimizers fill it on every exit.
  // This default (for optimizers outside the library) reports state 0.
  virtual const LxRunSummary& LastRun() const;
};

// Base of the optimizers that use values, gradients and Hessians.
class LXOPT_API LxOptimizer2 {
 public:
  // Largest number of iterations of a run.
  virtual void SetIterLimit(unsigned int limit) = 0;
  // Convergence threshold; each optimizer states the exact test it controls.
  virtual void SetTolerance(double tolerance) = 0;
  // The settings above, as last set or defaulted.
  virtual unsigned int GetIterLimit() const = 0;
  virtual double GetTolerance() const = 0;
  // Same as the four-argument form with a null checkpoint.
  virtual double operator()(LxFunc2& func, const double* start, double* out);
  // Minimizes func from start (In: func.NumVar() doubles), reporting to
  // checkpoint (may be null); Out: out receives the final variables. Returns
  // the final value. What each result state leaves is stated by the optimizer.
  virtual double operator()(LxFunc2& func, LxCheckpoint1* checkpoint, const double* start,
                            double* out) = 0;
  virtual ~LxOptimizer2();
  // How the last run ended; the library's optimizers fill it on every exit.
  // This default (for optimizers outside the library) reports state 0.
  virtual const LxRunSummary& LastRun() const;
};

}  // namespace LxOpt

#endif  // LXOPT_OPTIMIZER_H
