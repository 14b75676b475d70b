// Tests a random start point must pass before a local optimization is spent
// on it: outside every known minimum's ellipsoid, value inside the sample
// window, and the gradient criterion against the kept sample points.
#include <limits>

#include "framework/internal.h"
#include "lxopt/minfinder.h"

namespace LxOpt {
namespace LxMinfinder {
namespace {

constexpr unsigned long kNoMinimum = std::numeric_limits<unsigned long>::max();

}  // namespace

// Index of the minimum nearest to x (smallest squared distance; a later one
// wins only when strictly nearer). kNoMinimum when none lies below the
// largest finite double, e.g. with no minima or only infinite distances.
unsigned long LxMinfinderImpl::NearestMinimum(const double* x) const {
  double best = std::numeric_limits<double>::max();
  unsigned long nearest = kNoMinimum;
  for (unsigned long i = 0; i < minima_.getNumPoints(); ++i) {
    const double d2 = minima_.CalcDistance2(i, x);
    if (d2 < best) {
      best = d2;
      nearest = i;
    }
  }
  return nearest;
}

// The nearest minimum of every sample point only changes when the minima
// store does, so it is kept per sample: a candidate then costs
// O(minima * n + samples * n) instead of O(samples * minima * n).
unsigned long LxMinfinderImpl::CachedNearestMinimum(unsigned long sample) const {
  if (cacheSamplesGeneration_ != samples_.Generation() ||
      cacheMinimaGeneration_ != minima_.Generation() ||
      cacheMinimaCount_ != minima_.getNumPoints()) {
    nearestCache_.clear();
    cacheSamplesGeneration_ = samples_.Generation();
    cacheMinimaGeneration_ = minima_.Generation();
    cacheMinimaCount_ = minima_.getNumPoints();
  }
  while (nearestCache_.size() <= sample) {
    const unsigned long nearest = NearestMinimum(samples_.PointData(nearestCache_.size()));
    // A sample with no finite distance counts as belonging to minimum 0.
    nearestCache_.push_back(nearest == kNoMinimum ? 0 : nearest);
  }
  return nearestCache_[sample];
}

bool LxMinfinderImpl::GradientToSamplesCriterion(const double* x, const double* grad) const {
  if (samples_.getNumPoints() == 0 || minima_.getNumPoints() < 2) return true;
  const unsigned long nearest = NearestMinimum(x);
  if (nearest == kNoMinimum) return true;
  const unsigned int n = samples_.getNumVar();
  for (unsigned long k = 0; k < samples_.getNumPoints(); ++k) {
    if (CachedNearestMinimum(k) != nearest) continue;
    const double* xk = samples_.PointData(k);
    const double* gk = samples_.GradientData(k);
    // s = sum_d (x_d - x_k,d)(g_d - g_k,d): negative when the gradient turns
    // against the segment joining the two points.
    double s = 0.0;
    for (unsigned int d = 0; d < n; ++d) s += (x[d] - xk[d]) * (grad[d] - gk[d]);
    if (s < kGradientCriterionLimit) return false;
  }
  return true;
}

bool LxMinfinderImpl::IsItValidPointVer2(double* grad, double& value, const double* x) {
  if (!ObjectiveFitsSetup()) {
    LxThrow.Error("You have to setup the minfinder object first!");
    return false;
  }
  if (minima_.IsItInAnyEllipsoid(x)) return false;
  detail::Zero(grad, lower_.size());
  value = (*func_)(x, grad);
  return fvalSampleMin_ < value && value < fvalSampleMax_ && GradientToSamplesCriterion(x, grad);
}

bool LxMinfinderImpl::EllipsoidRtToSamplePointsCriterion(const double* x) {
  return !samples_.IsItInAnyEllipsoidRt(x, 0.0);
}

bool LxMinfinderImpl::EllipsoidRtToMinimumPointsCriterion(const double* x) {
  return !minima_.IsItInAnyEllipsoidRt(x, 0.0);
}

}  // namespace LxMinfinder
}  // namespace LxOpt
