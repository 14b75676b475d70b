// Optimizer bases, per-iteration checkpoints and the result states.
#ifndef LXOPT_OPTIMIZER_H
#define LXOPT_OPTIMIZER_H

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

// Short name of a state; "" for codes above 12, never null.
LXOPT_API const char* LxGetStateName(unsigned int state);

// Per-iteration callback of value-only optimizers. Returning false from a
// report with state 0 asks the optimizer to stop (where it honours that).
class LXOPT_API LxCheckpoint0 {
 public:
  virtual bool operator()(unsigned int iter, unsigned int nvar, double fval,
                          const double* vars, unsigned int state) = 0;
  virtual ~LxCheckpoint0();
};

// Per-iteration callback of gradient and Hessian optimizers. gnorm is the
// Euclidean gradient norm, or the root-mean-square gradient for the Newton
// optimizers; vars and grad are valid only during the call (grad may be null
// where an optimizer says so).
class LXOPT_API LxCheckpoint1 : public LxCheckpoint0 {
 public:
  // The value-only form; this default accepts and continues.
  bool operator()(unsigned int iter, unsigned int nvar, double fval,
                  const double* vars, unsigned int state) override;
  ~LxCheckpoint1() override;
  virtual bool operator()(unsigned int iter, unsigned int nvar, double fval,
                          double gnorm, const double* vars, const double* grad,
                          unsigned int state) = 0;
};

class LXOPT_API LxOptimizer0 {
 public:
  virtual void SetIterLimit(unsigned int limit) = 0;
  virtual void SetTolerance(double tolerance) = 0;
  // Same as the four-argument form with a null checkpoint.
  virtual double operator()(LxFunc0& func, const double* start, double* out);
  virtual double operator()(LxFunc0& func, LxCheckpoint0* checkpoint,
                            const double* start, double* out) = 0;
  virtual ~LxOptimizer0();
};

class LXOPT_API LxOptimizer1 {
 public:
  virtual void SetIterLimit(unsigned int limit) = 0;
  virtual void SetTolerance(double tolerance) = 0;
  virtual unsigned int GetIterLimit() const = 0;
  virtual double GetTolerance() const = 0;
  // Same as the four-argument form with a null checkpoint.
  virtual double operator()(LxFunc1& func, const double* start, double* out);
  // Minimizes func from start, writes the variables to out and returns the
  // final value. out may equal start.
  virtual double operator()(LxFunc1& func, LxCheckpoint1* checkpoint,
                            const double* start, double* out) = 0;
  virtual ~LxOptimizer1();
};

class LXOPT_API LxOptimizer2 {
 public:
  virtual void SetIterLimit(unsigned int limit) = 0;
  virtual void SetTolerance(double tolerance) = 0;
  virtual unsigned int GetIterLimit() const = 0;
  virtual double GetTolerance() const = 0;
  // Same as the four-argument form with a null checkpoint.
  virtual double operator()(LxFunc2& func, const double* start, double* out);
  virtual double operator()(LxFunc2& func, LxCheckpoint1* checkpoint,
                            const double* start, double* out) = 0;
  virtual ~LxOptimizer2();
};

}  // namespace LxOpt

#endif  // LXOPT_OPTIMIZER_H
