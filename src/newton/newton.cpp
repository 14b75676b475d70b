// Damped Newton optimizer on an explicit Hessian (Levenberg-Marquardt damping
// of the diagonal, LDLT with pivot repair). Reference: J. Nocedal and
// S. J. Wright, Numerical Optimization, 2nd ed., ch. 3.4 (Newton's method
// with Hessian modification) and ch. 10.3 (Levenberg-Marquardt).
#include <cmath>
#include <cstring>
#include <new>

#include "framework/internal.h"
#include "lxopt/host.h"
#include "lxopt/newton.h"
#include "lxopt/steepest.h"
#include "newton/newton_internal.h"

namespace LxOpt {
namespace {

// Everything one run needs, sized once before the loop: the Hessian H (the
// factorization holds the repaired and the scratch matrix) and the step.
struct Workspace {
  explicit Workspace(Eigen::Index n)
      : hessian(Eigen::MatrixXd::Zero(n, n)), factor(n), step(Eigen::VectorXd::Zero(n)) {}
  Eigen::MatrixXd hessian;
  detail::RepairedLdlt factor;
  Eigen::VectorXd step;
};

}  // namespace

LxNewtonOptImpl::LxNewtonOptImpl() = default;
LxNewtonOptImpl::~LxNewtonOptImpl() = default;

double LxNewtonOptImpl::PreconditionWSteepestDescent(LxFunc2& func, const double* start,
                                                     double* result) {
  const double n = func.NumVar();
  LxSteepestDescentOpt descent;
  descent.SetTolerance(n * preconditionGradientScale_ * preconditionGradientScale_);
  descent.SetIterLimit(static_cast<unsigned int>(preconditionIterLimit_));
  return descent(static_cast<LxFunc1&>(func), start, result);
}

double LxNewtonOptImpl::operator()(LxFunc2& func, LxCheckpoint1* checkpoint,
                                   const double* start, double* result) {
  using detail::Report;
  if (result == nullptr) {
    LxThrow.Warning("memory not provided for optimized variables");
    return 0.0;
  }
  const unsigned int n = func.NumVar();
  const std::size_t packedSize = static_cast<std::size_t>(n) * (n + 1) / 2;
  std::unique_ptr<Workspace> work;
  try {
    gradient_.assign(n, 0.0);
    packed_.assign(packedSize, 0.0);
    work = std::make_unique<Workspace>(n);
  } catch (const std::bad_alloc&) {
    const double bytes = 8.0 * (4.0 * n * n + packedSize);
    LxThrow.Warning("out of memory allocating %d in LxNewtonOptImpl",
                    bytes > 2147483647.0 ? 2147483647 : static_cast<int>(bytes));
    return 0.0;
  }

  double* const x = result;
  if (precondition_) {
    PreconditionWSteepestDescent(func, start, x);
  } else if (x != start) {
    std::memmove(x, start, sizeof(double) * n);
  }
  double* const g = gradient_.data();
  Eigen::Map<Eigen::VectorXd> xv(x, n);
  const Eigen::Map<const Eigen::VectorXd> gv(g, n);

  double fOld = func(x);
  if (iterLimit_ == 0) {
    Report(checkpoint, 0, n, fOld, 0.0, x, g, kLxExhaust);
    return fOld;
  }

  detail::DampingSchedule damping(initialDamping_, minDamping_, maxDamping_, dampingDecrease_,
                                  dampingIncrease_);
  detail::IterationBudget budget(iterLimit_);
  unsigned int iteration = 0;
  bool fresh = true;
  double r = 0.0;
  double fNew = fOld;
  for (;;) {
    if (fresh) {
      detail::Zero(g, n);
      detail::Zero(packed_.data(), packedSize);
      if (!func(x, packed_.data(), g)) return 0.0;
      r = detail::RmsGradient(g, n);
    }
    // Unpacked again after a failed step too, so shifts never accumulate.
    detail::UnpackSymmetric(packed_.data(), work->hessian);
    detail::AddDampingShift(damping.lambda(), work->hessian);
    const bool repaired = work->factor.Factorize(work->hessian);
    work->factor.Solve(gv, work->step);  // A' s = g

    xv -= work->step;
    fNew = func(x);
    if (fNew >= fOld && std::fabs(fNew - fOld) >= valueChangeTolerance_) {
      if (damping.AtMaximum()) {
        // Deliberate: out stays at the failed trial point and its value is
        // returned.
        Report(checkpoint, iteration, n, fNew, r, x, g, kLxNotFound);
        break;
      }
      xv += work->step;
      damping.AfterFailedStep();
      fresh = false;
    } else {
      damping.AfterAcceptedStep(repaired);
      Report(checkpoint, iteration, n, fNew, r, x, g, kLxCont);
      fOld = fNew;
      fresh = true;
      // r belongs to the start of the accepted step.
      if (r < tolerance_) {
        Report(checkpoint, iteration, n, fNew, r, x, g, kLxDone);
        break;
      }
    }
    if (budget.Extend(r, iteration)) Report(checkpoint, iteration, n, fNew, r, x, g, kLxStable);
    if (++iteration >= budget.end()) {
      Report(checkpoint, budget.end(), n, fNew, r, x, g, kLxExhaust);
      break;
    }
  }

  // Deliberate: the checked matrix is the last unpacked Hessian plus that
  // iteration's shift, as it stands after the loop.
  if (checkEigenvalues_ && !LxCheckEigenvalues(n, work->hessian))
    Report(checkpoint, iteration, n, fNew, r, x, g, kLxNotFound);
  // Deliberate: the last computed value is returned, which after a rejected
  // last step is the rejected trial's while out holds the accepted point.
  return fNew;
}

LxNewtonOpt::LxNewtonOpt() : impl_(std::make_unique<LxNewtonOptImpl>()) {}
LxNewtonOpt::LxNewtonOpt(const LxNewtonOpt& other)
    : LxOptimizer2(other), impl_(std::make_unique<LxNewtonOptImpl>(*other.impl_)) {}
LxNewtonOpt& LxNewtonOpt::operator=(const LxNewtonOpt& other) {
  if (this != &other) *impl_ = *other.impl_;
  return *this;
}
LxNewtonOpt::~LxNewtonOpt() = default;

void LxNewtonOpt::SetIterLimit(unsigned int limit) { impl_->SetIterLimit(limit); }
void LxNewtonOpt::SetTolerance(double tolerance) { impl_->SetTolerance(tolerance); }
unsigned int LxNewtonOpt::GetIterLimit() const { return impl_->GetIterLimit(); }
double LxNewtonOpt::GetTolerance() const { return impl_->GetTolerance(); }

double LxNewtonOpt::operator()(LxFunc2& func, LxCheckpoint1* checkpoint, const double* start,
                               double* result) {
  return (*impl_)(func, checkpoint, start, result);
}

}  // namespace LxOpt
