// One cycle's move of the geometry driver: quasi-Newton direction on the
// packed inverse Hessian, capped line search, restart on failure, BFGS update
// (scaled after a restart, self-scaled in its first n updates, damped when
// curvature is short), and the optional history (DIIS or subspace) step.
// With the Cartesian setting H starts from the pair model (pair_model.h),
// which is rebuilt as the atoms move, the recent steps replayed on it.
#include <algorithm>
#include <cmath>

#include "framework/internal.h"
#include "framework/packed.h"
#include "geomopt/geom_internal.h"
#include "geomopt/pair_model.h"
#include "geomopt/surrogate_step.h"

namespace LxOpt {
namespace geom {
namespace {

// After a restart -g carries no length information: the first trial moves
// the farthest atom (or coordinate) by this much, or with the pair model by
// this share of the mean nearest-neighbour distance, so that the run does not
// depend on the unit of length.
constexpr double kFirstMove = 0.1;
// With the pair model the trust radius starts at this many nearest-neighbour
// distances instead of kInitialRadius.
constexpr double kInitialRadiusShare = 1.0;

double Distance(const double* a, const double* b, unsigned int n) {
  double sum = 0.0;
  for (unsigned int i = 0; i < n; ++i) sum += (a[i] - b[i]) * (a[i] - b[i]);
  return std::sqrt(sum);
}

// With the pair model, up to this many of the latest steps and gradient
// changes are kept to be replayed on a rebuilt model.
constexpr unsigned int kModelPairs = 200;

unsigned int ModelPairs(unsigned int n) {
  return std::min(n, kModelPairs);
}

// Model minima tried per cycle before the line search takes over; after
// kSurrogateMisses cycles in a row where none was lower the model is given up
// for the run (it cannot describe the objective), and so it is once the model
// holds all the points it can: beyond that it sees too little of the path and
// its steps shrink, while H has learnt from every step it took.
constexpr unsigned int kSurrogateTries = 2;
constexpr unsigned int kSurrogateMisses = 5;

}  // namespace

std::size_t CycleStep::ScratchSize(unsigned int n, bool cartesian) {
  return packed::Size(n) + 12 * std::size_t(n) +
         (cartesian ? PairModelSize(n) + (1 + 2 * std::size_t(ModelPairs(n))) * n + n / 3 : 0);
}

CycleStep::CycleStep(LxFunc1& func, unsigned int n, double* x, double* g, double& f,
                     double* scratch, History* history, bool cartesian, const int* atomicNumbers)
    : func_(func), n_(n), x_(x), g_(g), f_(f), history_(history) {
  h_ = scratch;
  double* next = scratch + packed::Size(n);
  for (double** v : {&dir_, &xStart_, &xOld_, &gOld_, &s_, &y_, &hy_, &xt_, &gt_, &gBest_}) {
    *v = next;
    next += n;
  }
  historyWork_ = next;
  model_ = cartesian ? next + 2 * std::size_t(n) : nullptr;
  xModel_ = cartesian ? model_ + PairModelSize(n) : nullptr;
  pairCapacity_ = cartesian ? ModelPairs(n) : 0;
  pairS_ = cartesian ? xModel_ + n : nullptr;
  pairY_ = cartesian ? pairS_ + std::size_t(pairCapacity_) * n : nullptr;
  if (cartesian && atomicNumbers != nullptr) {
    double* const radii = pairY_ + std::size_t(pairCapacity_) * n;
    if (CovalentRadii(atomicNumbers, n / 3, radii)) radii_ = radii;
  }
  Restart();
  if (modelNearest_ > 0.0) radius_ = kInitialRadiusShare * modelNearest_;
}

void CycleStep::Restart() {
  if (model_ != nullptr && FactorPairModel(x_, n_, model_, &modelNearest_, radii_)) {
    PackedPairModelInverse(model_, n_, h_, hy_);
    detail::Copy(x_, xModel_, n_);
  } else {
    ResetInverseHessian(h_, n_, 1.0);
  }
  restartGnorm_ = std::sqrt(detail::SquaredNorm(g_, n_));
  fresh_ = true;
  updates_ = 0;
  pairCount_ = 0;
}

void CycleStep::CapAtomStep(double limit) {
  radiusLimit_ = limit;
  radius_ = std::min(radius_, limit);
}

StepStatus CycleStep::Take(double accuracy, double& displacement) {
  const double gg = detail::SquaredNorm(g_, n_);
  if (!std::isfinite(gg) || gg == 0.0) return StepStatus::kEnded;
  detail::Copy(x_, xStart_, n_);
  if (surrogate_ != nullptr && surrogateMisses_ < kSurrogateMisses && !surrogate_->Full() &&
      TrySurrogate()) {
    displacement = Distance(x_, xStart_, n_);
    return StepStatus::kLowered;
  }

  MatXVec(h_, g_, dir_, n_);
  for (unsigned int i = 0; i < n_; ++i) dir_[i] = -dir_[i];
  if (!(detail::Dot(g_, dir_, n_) < 0.0)) {
    Restart();
    for (unsigned int i = 0; i < n_; ++i) dir_[i] = -g_[i];
  }
  double step = 0.0, fNew = f_;
  bool found = Search(accuracy, step, fNew);
  if (!found && !fresh_) {
    Restart();
    for (unsigned int i = 0; i < n_; ++i) dir_[i] = -g_[i];
    found = Search(accuracy, step, fNew);
  }
  if (!found) return StepStatus::kNotFound;

  Move(step, fNew);
  Update();
  if (model_ != nullptr && !fresh_) RefreshModel();
  if (history_ != nullptr) {
    PushHistory(*history_, x_, g_);
    TryHistoryStep();
  }
  displacement = Distance(x_, xStart_, n_);
  return StepStatus::kLowered;
}

bool CycleStep::Search(double accuracy, double& step, double& fNew) {
  // The first trial is the full quasi-Newton step, or after a restart the
  // move of kFirstMove; no trial moves an atom farther than the radius.
  const double firstMove = modelNearest_ > 0.0 ? kFirstMove * modelNearest_ : kFirstMove;
  step = fresh_ ? CappedStep(dir_, n_, firstMove) : 1.0;
  fNew = f_;
  lineSearch_.SetStepLimit(CappedStep(dir_, n_, radius_));
  lineSearch_.SetAccuracy(accuracy);
  const LxMoreThuenteLineMinimize::Outcome found =
      lineSearch_.Search(n_, x_, dir_, g_, gBest_, &fNew, &step, func_, xt_);
  radius_ = NextRadius(radius_, found.found && found.capped);
  if (radiusLimit_ > 0.0) radius_ = std::min(radius_, radiusLimit_);
  return found.found;
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
  if (fresh_) ShannoPhuaScale(h_, s_, y_, hy_, n_);
  // Self-scaling corrects the scale guessed at the restart while H has not
  // yet been updated along n directions.
  if (UpdateInverseHessian(h_, s_, y_, hy_, n_, updates_ < n_)) {
    fresh_ = false;
    ++updates_;
    if (pairS_ != nullptr && pairCapacity_ > 0) {
      detail::Copy(s_, pairS_ + std::size_t(pairNext_) * n_, n_);
      detail::Copy(y_, pairY_ + std::size_t(pairNext_) * n_, n_);
      pairNext_ = (pairNext_ + 1) % pairCapacity_;
      if (pairCount_ < pairCapacity_) ++pairCount_;
    }
  }
}

void CycleStep::RefreshModel() {
  if (!PairModelIsStale(x_, xModel_, n_, modelNearest_)) return;
  double nearest = 0.0;
  // The model is rebuilt in scratch first: a failed factorisation leaves H.
  if (!FactorPairModel(x_, n_, model_, &nearest, radii_)) {
    detail::Copy(x_, xModel_, n_);
    return;
  }
  PackedPairModelInverse(model_, n_, h_, hy_);
  MatXVec(h_, y_, hy_, n_);
  const double gamma = detail::Dot(s_, y_, n_) / detail::Dot(y_, hy_, n_);
  if (gamma > 0.0 && std::isfinite(gamma)) ScaleInverseHessian(h_, n_, gamma);
  // The stored pairs, oldest first, carry over what the updates learnt.
  for (unsigned int k = 0; k < pairCount_; ++k) {
    const unsigned int slot = (pairNext_ + pairCapacity_ - pairCount_ + k) % pairCapacity_;
    detail::Copy(pairS_ + std::size_t(slot) * n_, s_, n_);
    UpdateInverseHessian(h_, s_, pairY_ + std::size_t(slot) * n_, hy_, n_, false);
  }
  modelNearest_ = nearest;
  detail::Copy(x_, xModel_, n_);
}

void CycleStep::SetSurrogate(Surrogate* surrogate) {
  surrogate_ = surrogate;
  surrogateMisses_ = 0;
  if (surrogate_ != nullptr) surrogate_->Start(x_, g_);
}

bool CycleStep::TrySurrogate() {
  surrogate_->Add(x_, f_, g_);
  for (unsigned int t = 0; t < kSurrogateTries; ++t) {
    if (!surrogate_->Propose(x_, g_, xt_)) break;
    if (radiusLimit_ > 0.0) PullWithinAtomStep();
    detail::Zero(gt_, n_);
    const double ft = func_(xt_, gt_);
    if (ft < f_) {
      AcceptTrial(ft);
      if (model_ != nullptr && !fresh_) RefreshModel();
      surrogateMisses_ = 0;
      return true;
    }
    surrogate_->Add(xt_, ft, gt_);
  }
  ++surrogateMisses_;
  return false;
}

void CycleStep::AcceptTrial(double ft) {
  detail::Copy(x_, xOld_, n_);
  detail::Copy(g_, gOld_, n_);
  detail::Copy(xt_, x_, n_);
  detail::Copy(gt_, g_, n_);
  f_ = ft;
  Update();
}

void CycleStep::PullWithinAtomStep() {
  for (unsigned int i = 0; i < n_; ++i) dir_[i] = xt_[i] - x_[i];
  const double a = CappedStep(dir_, n_, radiusLimit_);
  if (a >= 1.0) return;
  for (unsigned int i = 0; i < n_; ++i) xt_[i] = x_[i] + a * dir_[i];
}

void CycleStep::TryHistoryStep() {
  if (DiisPoint(*history_, h_, x_, xt_, historyWork_, radius_) && TryPoint()) return;
  if (SubspacePoint(*history_, x_, g_, xt_, radius_)) TryPoint();
}

bool CycleStep::TryPoint() {
  if (radiusLimit_ > 0.0 && !WithinAtomStep(x_, xt_, n_, radiusLimit_)) return false;
  detail::Zero(gt_, n_);
  const double ft = func_(xt_, gt_);
  if (!(ft < f_)) return false;
  AcceptTrial(ft);
  PushHistory(*history_, x_, g_);
  return true;
}

}  // namespace geom
}  // namespace LxOpt
