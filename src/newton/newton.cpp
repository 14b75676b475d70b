// Damped Newton optimizer on an explicit Hessian (Levenberg-Marquardt damping
// of the diagonal, LDLT with pivot repair). Reference: J. Nocedal and
// S. J. Wright, Numerical Optimization, 2nd ed., ch. 3.4 (Newton's method
// with Hessian modification) and ch. 10.3 (Levenberg-Marquardt).
// RunDampedNewton is the loop of both Newton runs; the constrained run only
// supplies its own step (newton_constr.cpp).
#include <cmath>
#include <cstring>
#include <new>

#include "framework/internal.h"
#include "framework/run_record.h"
#include "lxopt/host.h"
#include "lxopt/newton.h"
#include "lxopt/steepest.h"
#include "newton/newton_internal.h"

namespace LxOpt {
namespace {

// The plain shifted Newton step A' s = g, accepted by the value itself and
// converged when the RMS gradient is below the tolerance.
class PlainStep final : public detail::NewtonStep {
 public:
  PlainStep(const double* gradient, double tolerance)
      : gradient_(gradient), tolerance_(tolerance) {}
  double Evaluated(double*, const ConstVectorMap& g, double*) override {
    return detail::RmsGradient(g.data(), static_cast<unsigned int>(g.size()));
  }
  void Solve(detail::RepairedLdlt& factor, const ConstVectorMap& g,
             Eigen::VectorXd& step) override {
    factor.Solve(g, step);
  }
  double MeritAtStart(double f) const override { return f; }
  double MeritAtTrial(const double*, double f) override { return f; }
  bool Converged(double rms, double) const override { return rms < tolerance_; }
  const double* ReportedGradient() const override { return gradient_; }

 private:
  const double* gradient_;
  double tolerance_;
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

double LxNewtonOptImpl::operator()(LxFunc2& func, LxCheckpoint1* checkpoint, const double* start,
                                   double* result) {
  if (result == nullptr) {
    LxThrow.Warning("memory not provided for optimized variables");
    return 0.0;
  }
  const unsigned int n = func.NumVar();
  std::unique_ptr<detail::NewtonWorkspace> work;
  if (!detail::AllocateRun([&] { work = std::make_unique<detail::NewtonWorkspace>(n); },
                           8.0 * (4.0 * n * n + packed::Size(n)), "LxNewtonOptImpl"))
    return 0.0;
  PlainStep step(work->gradient.data(), tolerance_);
  return RunDampedNewton(func, checkpoint, start, result, step, *work);
}

double LxNewtonOptImpl::RunDampedNewton(LxFunc2& func, LxCheckpoint1* checkpoint,
                                        const double* start, double* x, detail::NewtonStep& step,
                                        detail::NewtonWorkspace& work) {
  using detail::Report;
  const unsigned int n = func.NumVar();
  if (precondition_) {
    PreconditionWSteepestDescent(func, start, x);
  } else if (x != start) {
    std::memmove(x, start, sizeof(double) * n);
  }
  double* const g = work.gradient.data();
  double* const packed = work.packed.data();
  const double* const reported = step.ReportedGradient();
  Eigen::Map<Eigen::VectorXd> xv(x, n);
  const Eigen::Map<const Eigen::VectorXd> gv(g, n);

  double fOld = func(x);
  if (iterLimit_ == 0) {
    Report(checkpoint, 0, n, fOld, 0.0, x, reported, kLxExhaust);
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
      detail::Zero(packed, work.packed.size());
      if (!func(x, packed, g)) return 0.0;
      r = step.Evaluated(x, gv, packed);
    }
    // Unpacked again after a failed step too, so shifts never accumulate.
    detail::UnpackSymmetric(packed, work.hessian);
    detail::AddDampingShift(damping.lambda(), work.hessian);
    const bool repaired = work.factor.Factorize(work.hessian);
    step.Solve(work.factor, gv, work.step);
    const double meritOld = step.MeritAtStart(fOld);

    xv -= work.step;
    fNew = func(x);
    const double meritNew = step.MeritAtTrial(x, fNew);
    if (meritNew >= meritOld && std::fabs(meritNew - meritOld) >= valueChangeTolerance_) {
      if (damping.AtMaximum()) {
        // Deliberate: out stays at the failed trial point and its value is
        // returned.
        Report(checkpoint, iteration, n, fNew, r, x, reported, kLxNotFound);
        break;
      }
      xv += work.step;
      damping.AfterFailedStep();
      fresh = false;
    } else {
      damping.AfterAcceptedStep(repaired);
      Report(checkpoint, iteration, n, fNew, r, x, reported, kLxCont);
      const double change = std::fabs(fNew - fOld);
      fOld = fNew;
      fresh = true;
      // r (and whatever else the step measured) belongs to the start of the
      // accepted step.
      if (step.Converged(r, change)) {
        Report(checkpoint, iteration, n, fNew, r, x, reported, kLxDone);
        break;
      }
    }
    if (budget.Extend(r, iteration))
      Report(checkpoint, iteration, n, fNew, r, x, reported, kLxStable);
    if (++iteration >= budget.end()) {
      Report(checkpoint, budget.end(), n, fNew, r, x, reported, kLxExhaust);
      break;
    }
  }

  // Deliberate: the checked matrix is the last unpacked Hessian plus that
  // iteration's shift, as it stands after the loop.
  if (checkEigenvalues_ && !LxCheckEigenvalues(n, work.hessian))
    Report(checkpoint, iteration, n, fNew, r, x, reported, kLxNotFound);
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

void LxNewtonOpt::SetIterLimit(unsigned int limit) {
  impl_->SetIterLimit(limit);
}
void LxNewtonOpt::SetTolerance(double tolerance) {
  impl_->SetTolerance(tolerance);
}
unsigned int LxNewtonOpt::GetIterLimit() const {
  return impl_->GetIterLimit();
}
double LxNewtonOpt::GetTolerance() const {
  return impl_->GetTolerance();
}

double LxNewtonOpt::operator()(LxFunc2& func, LxCheckpoint1* checkpoint, const double* start,
                               double* result) {
  return detail::RecordRun(lastRun_, func, checkpoint, false,
                           [&](LxFunc2& counted, LxCheckpoint1* recorder) {
                             return (*impl_)(counted, recorder, start, result);
                           });
}

}  // namespace LxOpt
