// Newton optimizers on an explicit Hessian (damped, Levenberg-Marquardt style),
// the constrained variant and the eigenvalue checks of a final Hessian.
//
// A Hessian handed across these interfaces is packed: the lower triangle row
// by row, element (i, j) with j <= i at i * (i + 1) / 2 + j.
#ifndef LXOPT_NEWTON_H
#define LXOPT_NEWTON_H

#include <Eigen/Core>
#include <memory>
#include <vector>

#include "lxopt/lxopt_export.h"
#include "lxopt/optimizer.h"

namespace LxOpt {

// ------------------------------------------------------------ eigenvalue checks

// Whether a final Hessian describes a minimum: 1 when no eigenvalue is below
// -1.0, else 0 after the warning "Found a negative eigenvalue = %f ...". 0
// without a message when the eigensolver fails; 1 for n = 0. The packed form
// unpacks and calls the dense one; the dense form reads the lower triangle of
// the n x n matrix h.
// Deliberate: small negative eigenvalues (down to -1.0) pass.
LXOPT_API int LxCheckEigenvalues(unsigned int n, const double* packed);
LXOPT_API int LxCheckEigenvalues(unsigned int n, const Eigen::MatrixXd& h);

// The same test for force-field Hessians over N atoms (n = 3N): first the
// -1.0 test above; then, for n >= 7, every eigenvalue from index 6 upward
// (ascending order; the six lowest belong to rigid-body motion) must be
// >= 0.0, else 0 after the warning "Found a eigenvalue(%d) = %f ...".
LXOPT_API int LxCheckMMFFEigenvalues(unsigned int n, const double* packed);
LXOPT_API int LxCheckMMFFEigenvalues(unsigned int n, const Eigen::MatrixXd& h);

// --------------------------------------------------------------- Newton

namespace detail {
class NewtonStep;
struct NewtonWorkspace;
}  // namespace detail

// The damped Newton run. It starts with PreconditionWSteepestDescent (on by
// default: at most 20 steepest-descent iterations, tolerance n on sum g^2).
// Per iteration, with g and H from the last Hessian evaluation and the
// damping factor lambda (0.01 at the start of every run):
//   mu = lambda * (1 + |trace(H) / n|),  A = H + mu I = P^T L D L^T P;
//   pivots D_i < 0.001 become 1000.0 (A' = P^T L D' L^T P, factorized again);
//   x' = x - A'^{-1} g.
// A step is rejected when f' >= f and |f' - f| >= 1e-12 (a smaller rise is
// accepted): x is restored, lambda *= 8 and H, g are reused. An accepted step
// sets lambda *= 0.3 (not below the minimum 0.0) after a healthy
// factorization, lambda *= 8 after a repaired one; lambda never exceeds 1000.
//
// Reports (gnorm is the RMS gradient r = sqrt(sum g^2 / n) at the last
// Hessian evaluation; grad is that g):
//   0 Cont      after every accepted step, with the new value.
//   11 Done     r < tolerance at the start of an accepted step; out holds the
//               new point, its value is returned.
//   12 Stable   the first time r < 1e-5: the run gets at most 30 more
//               iterations (limit = iteration + 30, smaller or larger than the
//               configured one); the run continues.
//   3 NotFound  a step failed with lambda at its maximum. Deliberate: out is
//               left at the failed trial point and the trial value returned.
//               Also reported after the run when the eigenvalue check (off
//               by default) fails on the last shifted Hessian.
//   6 Exhaust   iteration limit reached, reported at iteration = limit (limit
//               0: at iteration 0 with r = 0, after one value evaluation);
//               out holds the last accepted point.
// Deliberate: every exit returns (and reports) the last computed value; after
// a rejected last step that is the rejected trial's while out holds the
// accepted point.
// A Hessian operation that returns false ends the run at once with 0.0 and no
// report; out keeps the last position. A null out warns and returns 0.0.
class LXOPT_API LxNewtonOptImpl {
 public:
  static constexpr unsigned int kDefaultIterLimit = 1000;
  static constexpr double kDefaultTolerance = 1e-6;

  // Default settings: limit 1000, tolerance 1e-6, preconditioning on.
  LxNewtonOptImpl();
  virtual ~LxNewtonOptImpl();
  LxNewtonOptImpl(const LxNewtonOptImpl&) = default;
  LxNewtonOptImpl& operator=(const LxNewtonOptImpl&) = default;

  // Minimizes func from start into result (they may be the same array) and
  // returns the final value; see the class comment for the exits.
  virtual double operator()(LxFunc2& func, LxCheckpoint1* checkpoint, const double* start,
                            double* result);

  // A fresh steepest-descent run from start into result with tolerance
  // n * s * s (s = precondition gradient scale) and the precondition
  // iteration limit, no checkpoint; returns its value.
  double PreconditionWSteepestDescent(LxFunc2& func, const double* start, double* result);

  // Largest number of Newton iterations of a run (before any extension by
  // the Stable report).
  void SetIterLimit(unsigned int limit) { iterLimit_ = limit; }
  // Converged when the RMS gradient sqrt(sum g^2 / n) < tolerance (strict).
  void SetTolerance(double tolerance) { tolerance_ = tolerance; }
  // The settings above, as last set or defaulted.
  unsigned int GetIterLimit() const { return iterLimit_; }
  double GetTolerance() const { return tolerance_; }

 protected:
  // The damped Newton loop of both runs, from the preconditioning to the
  // returned value (the exits of the class comment); step forms each step,
  // the merit it is accepted by, the reported gradient and the convergence
  // test. gradient_ and packed_ must be sized to func, work to n.
  double RunDampedNewton(LxFunc2& func, LxCheckpoint1* checkpoint, const double* start, double* x,
                         detail::NewtonStep& step, detail::NewtonWorkspace& work);

  unsigned int iterLimit_ = kDefaultIterLimit;
  double maxDamping_ = 1000.0;
  double minDamping_ = 0.0;
  double dampingDecrease_ = 0.3;
  double dampingIncrease_ = 8.0;
  double initialDamping_ = 0.01;
  double tolerance_ = kDefaultTolerance;
  double valueChangeTolerance_ = 1e-12;
  int precondition_ = 1;
  int preconditionIterLimit_ = 20;
  double preconditionGradientScale_ = 1.0;
  bool checkEigenvalues_ = false;
  std::vector<double> gradient_;  // work vector, n per run
  std::vector<double> packed_;    // work vector, n (n + 1) / 2 per run
};

// The front: owns one LxNewtonOptImpl; copies copy it deeply.
class LXOPT_API LxNewtonOpt : public LxOptimizer2 {
 public:
  // Owns a default LxNewtonOptImpl.
  LxNewtonOpt();
  LxNewtonOpt(const LxNewtonOpt& other);
  LxNewtonOpt& operator=(const LxNewtonOpt& other);
  ~LxNewtonOpt() override;

  // Largest number of Newton iterations of a run (see LxNewtonOptImpl).
  void SetIterLimit(unsigned int limit) override;
  // Converged when the RMS gradient sqrt(sum g^2 / n) < tolerance (strict).
  void SetTolerance(double tolerance) override;
  // The settings above, as held by the implementation.
  unsigned int GetIterLimit() const override;
  double GetTolerance() const override;

  using LxOptimizer2::operator();
  // Runs the implementation: minimizes func from start into result (n
  // doubles each, may be the same array); returns the value as the exits of
  // LxNewtonOptImpl say.
  double operator()(LxFunc2& func, LxCheckpoint1* checkpoint, const double* start,
                    double* result) override;
  // How the last run ended.
  const LxRunSummary& LastRun() const override { return lastRun_; }

  // The implementation, for its further settings; never null.
  LxNewtonOptImpl* GetImpl() { return impl_.get(); }
  const LxNewtonOptImpl* GetImpl() const { return impl_.get(); }

 private:
  std::unique_ptr<LxNewtonOptImpl> impl_;
  LxRunSummary lastRun_;
};

// ---------------------------------------------------------- constrained Newton

// An equality constraint c(x) = 0 over the objective's variables.
class LXOPT_API LxConstrFunc {
 public:
  virtual ~LxConstrFunc();
  // Value c(x); writes dc/dx into grad (NumVar() doubles, zeroed by the caller).
  virtual double operator()(const double* x, double* grad) = 0;
  // Number of variables; must equal the objective's.
  virtual unsigned int NumVar() const = 0;
};

// The Newton run under equality constraints c_k(x) = 0 (k = 1..m).
//
// Multipliers nu: least squares, nu = argmin |g - J^T nu|, i.e.
// (J J^T) nu = J g, with g the gradient, J the m x n constraint Jacobian
// and c the constraint values at x (the last Hessian evaluation).
// Hessian of the Lagrangian f - nu^T c: the objective's Hessian minus
// sum_k nu_k grad^2 c_k. The constraints supply no second derivatives, so
// their curvature comes from forward differences of J^T nu along each axis
// (step 1.5e-8 max(1, |x_i|)): m n extra constraint evaluations per Hessian
// evaluation. Without it the step ignores the constraints' curvature and
// stalls near a minimum on a curved constraint.
// Step: with A' that Hessian damped and pivot-repaired as in the
// unconstrained run, the step s and the step multipliers lambda solve the
// KKT system
//   [ A'  J^T ] [ s      ]   [ g ]
//   [ J   0   ] [ lambda ] = [ c ],   x' = x - s,
// by elimination: u = A'^{-1} g, W = A'^{-1} J^T,
// (J W) lambda = J u - c, s = u - W lambda. So J s = c (linearized
// constraints met) and A' s = g - J^T lambda.
// Acceptance compares the Lagrangian f - lambda^T c (this step's lambda) at
// x and x' under the rule of the unconstrained run; -s descends on it.
// Convergence (state 11) after an accepted step needs all of: the RMS
// gradient of the Lagrangian sqrt(|g - J^T nu|^2 / n) below the tolerance;
// |f' - f| < 1e-12; the Euclidean norm |c| < 1e-8 (both norms at the last
// Hessian evaluation). Reports carry the Lagrangian gradient g - J^T nu and
// its RMS; the 1e-5 extension (state 12) uses the same RMS. Everything else,
// including the exits, is as in LxNewtonOptImpl. Defaults differ: initial
// damping 10.0, tolerance 1e-5. With no constraints it warns and runs the
// unconstrained algorithm with these settings. A constraint whose NumVar()
// differs from the objective's is an error: 0.0 is returned.
class LXOPT_API LxNewtonConstrOptImpl : public LxNewtonOptImpl {
 public:
  static constexpr double kDefaultTolerance = 1e-5;

  // Defaults as described above, no constraints.
  LxNewtonConstrOptImpl();
  ~LxNewtonConstrOptImpl() override;
  LxNewtonConstrOptImpl(const LxNewtonConstrOptImpl&) = default;
  LxNewtonConstrOptImpl& operator=(const LxNewtonConstrOptImpl&) = default;

  // Minimizes func from start into result (may be the same array) under the
  // listed constraints; returns the final value (exits as described above).
  double operator()(LxFunc2& func, LxCheckpoint1* checkpoint, const double* start,
                    double* result) override;

  // Appends c (not owned; keep it alive while listed); false if this very
  // object is already listed.
  bool Add(LxConstrFunc& c);
  // Removes c, keeping the order of the others; false if it is not listed.
  bool Remove(LxConstrFunc& c);
  // The listed constraints, in order.
  const std::vector<LxConstrFunc*>& Constraints() const { return constraints_; }

 private:
  std::vector<LxConstrFunc*> constraints_;
};

// The front: owns one LxNewtonConstrOptImpl; copies copy it, including the
// list of constraint pointers (the constraints themselves are shared).
class LXOPT_API LxNewtonConstrOpt : public LxOptimizer2 {
 public:
  // Owns a default LxNewtonConstrOptImpl with no constraints.
  LxNewtonConstrOpt();
  LxNewtonConstrOpt(const LxNewtonConstrOpt& other);
  LxNewtonConstrOpt& operator=(const LxNewtonConstrOpt& other);
  ~LxNewtonConstrOpt() override;

  // Largest number of Newton iterations of a run (see LxNewtonOptImpl).
  void SetIterLimit(unsigned int limit) override;
  // Converged when the RMS gradient of the Lagrangian < tolerance (strict),
  // together with the value and constraint tests of the implementation.
  void SetTolerance(double tolerance) override;
  // The settings above, as held by the implementation.
  unsigned int GetIterLimit() const override;
  double GetTolerance() const override;

  using LxOptimizer2::operator();
  // Runs the implementation: minimizes func from start into result under the
  // constraints; returns the value as LxNewtonConstrOptImpl says.
  double operator()(LxFunc2& func, LxCheckpoint1* checkpoint, const double* start,
                    double* result) override;
  // How the last run ended.
  const LxRunSummary& LastRun() const override { return lastRun_; }

  // Add and Remove forward to the implementation (same arguments, results).
  bool Add(LxConstrFunc& c);
  bool Remove(LxConstrFunc& c);

  // The implementation, for its further settings; never null.
  LxNewtonConstrOptImpl* GetImpl() { return impl_.get(); }
  const LxNewtonConstrOptImpl* GetImpl() const { return impl_.get(); }

 private:
  std::unique_ptr<LxNewtonConstrOptImpl> impl_;
  LxRunSummary lastRun_;
};

}  // namespace LxOpt

#endif  // LXOPT_NEWTON_H
