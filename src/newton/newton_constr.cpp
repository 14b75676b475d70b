// Damped Newton optimizer under equality constraints: each step solves the
// KKT (Lagrange-multiplier) system of the damped, pivot-repaired Hessian by
// elimination through the Schur complement J A'^{-1} J^T. Reference:
// J. Nocedal and S. J. Wright, Numerical Optimization, 2nd ed., ch. 16.2
// (range-space method) and ch. 18.1 (Newton's method on the KKT system).
#include <algorithm>
#include <cmath>
#include <new>

#include "framework/run_record.h"
#include "lxopt/host.h"
#include "lxopt/newton.h"
#include "newton/newton_internal.h"

namespace LxOpt {
namespace {

// The constraint measure |c| must fall below this for convergence.
constexpr double kConstraintTolerance = 1e-8;
// Relative forward-difference step of the constraint curvature (about the
// square root of the double precision).
constexpr double kCurvatureStep = 1.5e-8;
constexpr double kDefaultInitialDamping = 10.0;

// What the constrained step needs beyond the loop's matrices, sized once
// before the loop.
struct Workspace {
  Workspace(Eigen::Index n, Eigen::Index m)
      : solvedGradient(Eigen::VectorXd::Zero(n)),
        lagrangianGradient(Eigen::VectorXd::Zero(n)),
        trialConstraintGradient(Eigen::VectorXd::Zero(n)),
        curvatureColumn(Eigen::VectorXd::Zero(n)),
        combinedGradient(Eigen::VectorXd::Zero(n)),
        jacobianT(Eigen::MatrixXd::Zero(n, m)),
        solvedJacobianT(Eigen::MatrixXd::Zero(n, m)),
        values(Eigen::VectorXd::Zero(m)),
        trialValues(Eigen::VectorXd::Zero(m)),
        multipliers(Eigen::VectorXd::Zero(m)),
        leastSquares(Eigen::VectorXd::Zero(m)),
        rhs(Eigen::VectorXd::Zero(m)),
        schur(Eigen::MatrixXd::Zero(m, m)),
        gram(Eigen::MatrixXd::Zero(m, m)),
        schurLdlt(m),
        gramLdlt(m) {}
  Eigen::VectorXd solvedGradient;           // u = A'^{-1} g
  Eigen::VectorXd lagrangianGradient;       // g - J^T nu
  Eigen::VectorXd trialConstraintGradient;  // a constraint gradient away from x
  Eigen::VectorXd curvatureColumn;          // (sum nu_k grad^2 c_k) e_i
  Eigen::VectorXd combinedGradient;         // J^T nu at x
  Eigen::MatrixXd jacobianT;                // J^T: column k is grad c_k
  Eigen::MatrixXd solvedJacobianT;          // W = A'^{-1} J^T
  Eigen::VectorXd values;                   // c at the last Hessian evaluation
  Eigen::VectorXd trialValues;              // c at the trial point
  Eigen::VectorXd multipliers;              // lambda of the KKT step
  Eigen::VectorXd leastSquares;             // nu = argmin |g - J^T nu|
  Eigen::VectorXd rhs;
  Eigen::MatrixXd schur;  // J W
  Eigen::MatrixXd gram;   // J J^T
  Eigen::LDLT<Eigen::MatrixXd> schurLdlt;
  Eigen::LDLT<Eigen::MatrixXd> gramLdlt;
};

// The KKT step under the constraints, accepted by the Lagrangian, reporting
// the Lagrangian gradient; converged when that gradient, the value change and
// the constraint norm are all small.
class ConstrainedStep final : public detail::NewtonStep {
 public:
  ConstrainedStep(const std::vector<LxConstrFunc*>& constraints, Workspace& w, double tolerance,
                  double valueChangeTolerance)
      : constraints_(constraints),
        w_(w),
        tolerance_(tolerance),
        valueChangeTolerance_(valueChangeTolerance) {}

  double Evaluated(double* x, const ConstVectorMap& g, double* packed) override {
    EvaluateConstraints(x);
    constraintNorm_ = w_.values.norm();
    const double r = LagrangianGradient(g);
    AddConstraintCurvature(x, packed);
    return r;
  }

  // The KKT step with the factorized A': u = A'^{-1} g, W = A'^{-1} J^T,
  // (J W) lambda = J u - c, s = u - W lambda.
  void Solve(detail::RepairedLdlt& factor, const ConstVectorMap& g,
             Eigen::VectorXd& step) override {
    const Eigen::MatrixXd& jt = w_.jacobianT;
    factor.Solve(g, w_.solvedGradient);
    for (Eigen::Index k = 0; k < jt.cols(); ++k) factor.Solve(jt.col(k), w_.solvedJacobianT.col(k));
    for (Eigen::Index i = 0; i < jt.cols(); ++i) {
      w_.rhs(i) = jt.col(i).dot(w_.solvedGradient) - w_.values(i);
      for (Eigen::Index j = 0; j <= i; ++j)
        w_.schur(i, j) = jt.col(i).dot(w_.solvedJacobianT.col(j));
    }
    w_.schurLdlt.compute(w_.schur);
    w_.multipliers = w_.schurLdlt.solve(w_.rhs);
    step = w_.solvedGradient;
    step.noalias() -= w_.solvedJacobianT * w_.multipliers;
  }

  // The Lagrangian f - lambda^T c at the last Hessian evaluation and at the
  // trial point, with this step's multipliers.
  double MeritAtStart(double f) const override { return f - w_.multipliers.dot(w_.values); }
  double MeritAtTrial(const double* x, double f) override {
    EvaluateTrialValues(x);
    return f - w_.multipliers.dot(w_.trialValues);
  }

  // |c| is the one at the start of the accepted step, like rms.
  bool Converged(double rms, double valueChange) const override {
    return rms < tolerance_ && valueChange < valueChangeTolerance_ &&
           constraintNorm_ < kConstraintTolerance;
  }

  const double* ReportedGradient() const override { return w_.lagrangianGradient.data(); }

 private:
  // c and J^T at x.
  void EvaluateConstraints(const double* x) {
    for (std::size_t k = 0; k < constraints_.size(); ++k) {
      auto column = w_.jacobianT.col(static_cast<Eigen::Index>(k));
      column.setZero();
      w_.values(static_cast<Eigen::Index>(k)) = (*constraints_[k])(x, column.data());
    }
  }

  // c at a trial point; the gradients are not needed there.
  void EvaluateTrialValues(const double* x) {
    for (std::size_t k = 0; k < constraints_.size(); ++k) {
      w_.trialConstraintGradient.setZero();
      w_.trialValues(static_cast<Eigen::Index>(k)) =
          (*constraints_[k])(x, w_.trialConstraintGradient.data());
    }
  }

  // Lagrangian gradient g - J^T nu with the least-squares multipliers
  // (J J^T) nu = J g, i.e. the part of g that the constraint normals cannot
  // balance; returns its RMS.
  double LagrangianGradient(const Eigen::Map<const Eigen::VectorXd>& g) {
    const Eigen::MatrixXd& jt = w_.jacobianT;
    for (Eigen::Index i = 0; i < jt.cols(); ++i) {
      w_.rhs(i) = jt.col(i).dot(g);
      for (Eigen::Index j = 0; j <= i; ++j) w_.gram(i, j) = jt.col(i).dot(jt.col(j));
    }
    w_.gramLdlt.compute(w_.gram);
    w_.leastSquares = w_.gramLdlt.solve(w_.rhs);
    w_.lagrangianGradient = g;
    w_.lagrangianGradient.noalias() -= jt * w_.leastSquares;
    return detail::RmsGradient(w_.lagrangianGradient.data(), static_cast<unsigned int>(g.size()));
  }

  // Subtracts sum_k nu_k grad^2 c_k from the packed Hessian, so that it
  // becomes the Lagrangian's. The constraints supply no second derivatives:
  // column i is the forward difference of J^T nu along e_i, and the matrix
  // is symmetrized by averaging (i, j) with (j, i). x is restored exactly.
  void AddConstraintCurvature(double* x, double* packed) {
    const Eigen::Index n = w_.jacobianT.rows();
    w_.combinedGradient.noalias() = w_.jacobianT * w_.leastSquares;
    for (Eigen::Index i = 0; i < n; ++i) {
      const double xi = x[i];
      x[i] = xi + kCurvatureStep * std::max(1.0, std::fabs(xi));
      const double h = x[i] - xi;
      w_.curvatureColumn.setZero();
      for (std::size_t k = 0; k < constraints_.size(); ++k) {
        w_.trialConstraintGradient.setZero();
        (*constraints_[k])(x, w_.trialConstraintGradient.data());
        w_.curvatureColumn +=
            w_.leastSquares(static_cast<Eigen::Index>(k)) * w_.trialConstraintGradient;
      }
      x[i] = xi;
      w_.curvatureColumn = (w_.curvatureColumn - w_.combinedGradient) / h;
      for (Eigen::Index r = 0; r < i; ++r)
        packed[packed::Index(i, r)] -= 0.5 * w_.curvatureColumn(r);
      for (Eigen::Index r = i + 1; r < n; ++r)
        packed[packed::Index(r, i)] -= 0.5 * w_.curvatureColumn(r);
      packed[packed::Index(i, i)] -= w_.curvatureColumn(i);
    }
  }

  const std::vector<LxConstrFunc*>& constraints_;
  Workspace& w_;
  double tolerance_;
  double valueChangeTolerance_;
  double constraintNorm_ = 0.0;
};

}  // namespace

LxNewtonConstrOptImpl::LxNewtonConstrOptImpl() {
  initialDamping_ = kDefaultInitialDamping;
  tolerance_ = kDefaultTolerance;
}
LxNewtonConstrOptImpl::~LxNewtonConstrOptImpl() = default;

bool LxNewtonConstrOptImpl::Add(LxConstrFunc& c) {
  if (std::find(constraints_.begin(), constraints_.end(), &c) != constraints_.end()) return false;
  constraints_.push_back(&c);
  return true;
}

bool LxNewtonConstrOptImpl::Remove(LxConstrFunc& c) {
  const auto found = std::find(constraints_.begin(), constraints_.end(), &c);
  if (found == constraints_.end()) return false;
  constraints_.erase(found);
  return true;
}

double LxNewtonConstrOptImpl::operator()(LxFunc2& func, LxCheckpoint1* checkpoint,
                                         const double* start, double* result) {
  if (constraints_.empty()) {
    LxThrow.Warning("No constraints has been applied. Will perform unconstrained optimization");
    return LxNewtonOptImpl::operator()(func, checkpoint, start, result);
  }
  if (result == nullptr) {
    LxThrow.Warning("memory not provided for optimized variables");
    return 0.0;
  }
  const unsigned int n = func.NumVar();
  for (std::size_t k = 0; k < constraints_.size(); ++k) {
    if (constraints_[k]->NumVar() != n) {
      LxThrow.Error("constraint %d has %u variables, the objective %u", static_cast<int>(k),
                    constraints_[k]->NumVar(), n);
      return 0.0;
    }
  }
  const Eigen::Index m = static_cast<Eigen::Index>(constraints_.size());
  std::unique_ptr<detail::NewtonWorkspace> work;
  std::unique_ptr<Workspace> constrainedWork;
  const auto allocate = [&] {
    work = std::make_unique<detail::NewtonWorkspace>(n);
    constrainedWork = std::make_unique<Workspace>(n, m);
  };
  if (!detail::AllocateRun(allocate, 8.0 * (4.0 * n * n + packed::Size(n) + 4.0 * n * m),
                           "LxNewtonConstrOptImpl"))
    return 0.0;
  ConstrainedStep step(constraints_, *constrainedWork, tolerance_, valueChangeTolerance_);
  return RunDampedNewton(func, checkpoint, start, result, step, *work);
}

LxNewtonConstrOpt::LxNewtonConstrOpt() : impl_(std::make_unique<LxNewtonConstrOptImpl>()) {}
LxNewtonConstrOpt::LxNewtonConstrOpt(const LxNewtonConstrOpt& other)
    : LxOptimizer2(other), impl_(std::make_unique<LxNewtonConstrOptImpl>(*other.impl_)) {}
LxNewtonConstrOpt& LxNewtonConstrOpt::operator=(const LxNewtonConstrOpt& other) {
  if (this != &other) *impl_ = *other.impl_;
  return *this;
}
LxNewtonConstrOpt::~LxNewtonConstrOpt() = default;

void LxNewtonConstrOpt::SetIterLimit(unsigned int limit) {
  impl_->SetIterLimit(limit);
}
void LxNewtonConstrOpt::SetTolerance(double tolerance) {
  impl_->SetTolerance(tolerance);
}
unsigned int LxNewtonConstrOpt::GetIterLimit() const {
  return impl_->GetIterLimit();
}
double LxNewtonConstrOpt::GetTolerance() const {
  return impl_->GetTolerance();
}

double LxNewtonConstrOpt::operator()(LxFunc2& func, LxCheckpoint1* checkpoint, const double* start,
                                     double* result) {
  return detail::RecordRun(lastRun_, func, checkpoint, false,
                           [&](LxFunc2& counted, LxCheckpoint1* recorder) {
                             return (*impl_)(counted, recorder, start, result);
                           });
}

bool LxNewtonConstrOpt::Add(LxConstrFunc& c) {
  return impl_->Add(c);
}
bool LxNewtonConstrOpt::Remove(LxConstrFunc& c) {
  return impl_->Remove(c);
}

LxConstrFunc::~LxConstrFunc() = default;

}  // namespace LxOpt
