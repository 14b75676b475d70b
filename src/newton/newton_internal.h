// Pieces shared by the two Newton runs and the eigenvalue checks: unpacking a
// packed Hessian, the damping shift, the RMS gradient, the damping schedule,
// the iteration budget, the LDLT factorization with pivot repair and the
// interface by which a run forms its steps.
#ifndef LXOPT_SRC_NEWTON_NEWTON_INTERNAL_H
#define LXOPT_SRC_NEWTON_NEWTON_INTERNAL_H

#include <Eigen/Cholesky>
#include <Eigen/Core>
#include <new>
#include <vector>

#include "framework/packed.h"
#include "lxopt/host.h"

namespace LxOpt {
namespace detail {

// The extension rule: the first time the RMS gradient drops below 1e-5 the
// run gets at most 30 further iterations.
constexpr double kExtendBelowRms = 1e-5;
constexpr unsigned int kExtensionIterations = 30;

// h(i, j) = h(j, i) = packed[packed::Index(i, j)] for j <= i; h is n x n.
void UnpackSymmetric(const double* packed, Eigen::MatrixXd& h);

// Adds mu = damping * (1 + |trace(h) / n|) to the diagonal of h in place and
// returns mu (0 for n = 0).
double AddDampingShift(double damping, Eigen::MatrixXd& h);

// sqrt(sum g_i^2 / n); 1.0 for n = 0.
double RmsGradient(const double* g, unsigned int n);

// The Levenberg-Marquardt damping factor of one run.
class DampingSchedule {
 public:
  DampingSchedule(double initial, double minimum, double maximum, double decrease, double increase)
      : lambda_(initial), min_(minimum), max_(maximum), decrease_(decrease), increase_(increase) {}
  double lambda() const { return lambda_; }
  // |lambda - maximum| < 1e-10: a failing step now ends the run.
  bool AtMaximum() const;
  void AfterFailedStep() { Raise(); }
  // Healthy factorization: lambda = max(minimum, lambda * decrease);
  // repaired: lambda * increase. Both capped at the maximum.
  void AfterAcceptedStep(bool repaired);

 private:
  void Raise();
  double lambda_, min_, max_, decrease_, increase_;
};

// The end of the loop: the configured limit, moved once by the extension.
class IterationBudget {
 public:
  explicit IterationBudget(unsigned int limit) : end_(limit) {}
  unsigned int end() const { return end_; }
  // True (and end = iteration + 30) the first time rms < 1e-5.
  bool Extend(double rms, unsigned int iteration);

 private:
  unsigned int end_;
  bool extended_ = false;
};

// Runs allocate, which sizes the buffers of a run; when that throws
// std::bad_alloc, warns "out of memory allocating <bytes> in <who>" (bytes
// capped at the int range) and returns false.
template <class Allocate>
bool AllocateRun(Allocate allocate, double bytes, const char* who) {
  try {
    allocate();
    return true;
  } catch (const std::bad_alloc&) {
    LxThrow.Warning("out of memory allocating %d in %s",
                    bytes > 2147483647.0 ? 2147483647 : static_cast<int>(bytes), who);
    return false;
  }
}

// Symmetric LDLT with diagonal pivoting whose small pivots are repaired:
// A = P^T L D L^T P; every D_i < 0.001 becomes 1000.0, and
// A' = P^T L D' L^T P is factorized again. Every matrix is sized once in the
// constructor; Factorize and Solve do not allocate.
class RepairedLdlt {
 public:
  static constexpr double kSmallestPivot = 0.001;
  static constexpr double kRepairedPivot = 1000.0;

  explicit RepairedLdlt(Eigen::Index n);

  // Factorizes the symmetric a (its lower triangle is read); true when
  // pivots were repaired.
  bool Factorize(const Eigen::MatrixXd& a);

  // x = A'^{-1} b with the last factorization (A' = A when healthy). x may be
  // a column of a matrix. After a repair the factorized matrix is
  // P A' P^T, so b is permuted on the way in and x on the way out.
  template <class Rhs, class Dst>
  void Solve(const Rhs& b, Dst&& x) {
    if (!repaired_) {
      x = ldlt_.solve(b);
      return;
    }
    for (Eigen::Index i = 0; i < b.size(); ++i) permuted_(i) = b(rowOf_(i));
    permuted_ = ldlt_.solve(permuted_);
    for (Eigen::Index i = 0; i < b.size(); ++i) x(rowOf_(i)) = permuted_(i);
  }

 private:
  void BuildRepaired(const Eigen::MatrixXd& a, Eigen::Index repairedCount);

  Eigen::LDLT<Eigen::MatrixXd> ldlt_;
  Eigen::MatrixXd repairedMatrix_;  // lower triangle of P A' P^T
  Eigen::MatrixXd scratch_;
  Eigen::VectorXi repairedPivots_;  // ascending pivot positions
  Eigen::VectorXi rowOf_;           // (P v)(i) = v(rowOf_(i))
  Eigen::VectorXd permuted_;
  bool repaired_ = false;
};

// The buffers of the damped loop, sized once before it: the gradient and the
// packed Hessian the objective fills, the shifted Hessian A (after the loop:
// the last one, shift included), its repaired factorization and the step s.
struct NewtonWorkspace {
  explicit NewtonWorkspace(Eigen::Index n)
      : gradient(static_cast<std::size_t>(n), 0.0),
        packed(packed::Size(static_cast<std::size_t>(n)), 0.0),
        hessian(Eigen::MatrixXd::Zero(n, n)),
        factor(n),
        step(Eigen::VectorXd::Zero(n)) {}
  std::vector<double> gradient;
  std::vector<double> packed;
  Eigen::MatrixXd hessian;
  RepairedLdlt factor;
  Eigen::VectorXd step;
};

// What sets one damped Newton run apart from another. Per iteration the loop
// calls Evaluated after each Hessian evaluation, then Solve, MeritAtStart and,
// after x' = x - s and f' = f(x'), MeritAtTrial; the step is rejected when
// the trial merit is not lower by the value-change tolerance. After an
// accepted step it asks Converged.
class NewtonStep {
 public:
  using ConstVectorMap = Eigen::Map<const Eigen::VectorXd>;
  virtual ~NewtonStep() = default;
  // g and the packed Hessian were just evaluated at x; may amend the packed
  // Hessian (x is restored exactly if moved). Returns the RMS of the
  // reported gradient.
  virtual double Evaluated(double* x, const ConstVectorMap& g, double* packed) = 0;
  // The step s from the factorized damped Hessian A' and g.
  virtual void Solve(RepairedLdlt& factor, const ConstVectorMap& g, Eigen::VectorXd& step) = 0;
  // The merit compared by the acceptance test at the start of the step
  // (value f there) and at the trial point x (value f).
  virtual double MeritAtStart(double f) const = 0;
  virtual double MeritAtTrial(const double* x, double f) = 0;
  // rms: the value Evaluated returned for the start of the accepted step;
  // valueChange: |f' - f| over it.
  virtual bool Converged(double rms, double valueChange) const = 0;
  // The gradient every report carries (n doubles, valid for the whole run).
  virtual const double* ReportedGradient() const = 0;
};

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_NEWTON_NEWTON_INTERNAL_H
