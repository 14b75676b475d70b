// One cycle's move of the geometry driver: quasi-Newton direction on the
// packed inverse Hessian, capped line search, restart on failure, BFGS update
// (scaled after a restart, self-scaled in its first n updates, damped when
// curvature is short), and the optional history (DIIS or subspace) step.
#include <cmath>

#include "framework/internal.h"
#include "geomopt/geom_internal.h"

namespace LxOpt {
namespace geom {
namespace {

// After a restart -g carries no length information: the first trial moves
// the farthest atom (or coordinate) by this much.
constexpr double kFirstMove = 0.1;

double Distance(const double* a, const double* b, unsigned int n) {
  double sum = 0.0;
  for (unsigned int i = 0; i < n; ++i) sum += (a[i] - b[i]) * (a[i] - b[i]);
  return std::sqrt(sum);
}

}  // namespace

std::size_t CycleStep::ScratchSize(unsigned int n) { return PackedSize(n) + 12 * std::size_t(n); }

CycleStep::CycleStep(LxFunc1& func, unsigned int n, double* x, double* g, double& f,
                     double* scratch, History* history)
    : func_(func), n_(n), x_(x), g_(g), f_(f), history_(history) {
  h_ = scratch;
  double* next = scratch + PackedSize(n);
  for (double** v : {&dir_, &xStart_, &xOld_, &gOld_, &s_, &y_, &hy_, &xt_, &gt_, &gBest_}) {
    *v = next;
    next += n;
  }
  historyWork_ = next;
  Restart();
}

void CycleStep::Restart() {
  ResetInverseHessian(h_, n_, 1.0);
  restartGnorm_ = std::sqrt(detail::SquaredNorm(g_, n_));
  fresh_ = true;
  updates_ = 0;
}

StepStatus CycleStep::Take(double accuracy, double& displacement) {
  const double gg = detail::SquaredNorm(g_, n_);
  if (!std::isfinite(gg) || gg == 0.0) return StepStatus::kEnded;
  detail::Copy(x_, xStart_, n_);

  MatXVec(h_, g_, dir_, n_);
  for (unsigned int i = 0; i < n_; ++i) dir_[i] = -dir_[i];
  if (!(detail::Dot(g_, dir_, n_) < 0.0)) {
    Restart();
    for (unsigned int i = 0; i < n_; ++i) dir_[i] = -g_[i];
  }
  LineResult found = Search(accuracy);
  if (!found.found && !fresh_) {
    Restart();
    for (unsigned int i = 0; i < n_; ++i) dir_[i] = -g_[i];
    found = Search(accuracy);
  }
  if (!found.found) return StepStatus::kNotFound;

  Move(found.step, found.f);
  Update();
  if (history_ != nullptr) {
    PushHistory(*history_, x_, g_);
    TryHistoryStep();
  }
  displacement = Distance(x_, xStart_, n_);
  return StepStatus::kLowered;
}

LineResult CycleStep::Search(double accuracy) {
  // The first trial is the full quasi-Newton step, or after a restart the
  // move of kFirstMove; no trial moves an atom farther than the radius.
  const double first = fresh_ ? CappedStep(dir_, n_, kFirstMove) : 1.0;
  const double limit = CappedStep(dir_, n_, radius_);
  const Line line{func_, n_, x_, g_, f_, dir_};
  const LineResult found =
      LineMinimize(line, LineWork{xt_, gt_, gBest_}, first, limit, accuracy);
  radius_ = NextRadius(radius_, found.found && found.capped);
  return found;
}

void CycleStep::Move(double step, double fNew) {
  detail::Copy(x_, xOld_, n_);
  detail::Copy(g_, gOld_, n_);
  detail::Axpy(step, dir_, x_, n_);
  detail::Copy(gBest_, g_, n_);
  f_ = fNew;
}

void CycleStep::Update() {
  for (unsigned int i = 0; i < n_; ++i) {
    s_[i] = x_[i] - xOld_[i];
    y_[i] = g_[i] - gOld_[i];
  }
  if (fresh_) ShannoPhuaScale(h_, s_, y_, n_);
  // Self-scaling corrects the scale guessed at the restart while H has not
  // yet been updated along n directions.
  if (UpdateInverseHessian(h_, s_, y_, hy_, n_, updates_ < n_)) {
    fresh_ = false;
    ++updates_;
  }
}

void CycleStep::TryHistoryStep() {
  if (DiisPoint(*history_, h_, x_, xt_, historyWork_, radius_) && TryPoint()) return;
  if (SubspacePoint(*history_, x_, g_, xt_, radius_)) TryPoint();
}

bool CycleStep::TryPoint() {
  detail::Zero(gt_, n_);
  const double ft = func_(xt_, gt_);
  if (!(ft < f_)) return false;
  detail::Copy(x_, xOld_, n_);
  detail::Copy(g_, gOld_, n_);
  detail::Copy(xt_, x_, n_);
  detail::Copy(gt_, g_, n_);
  f_ = ft;
  Update();
  PushHistory(*history_, x_, g_);
  return true;
}

}  // namespace geom
}  // namespace LxOpt
