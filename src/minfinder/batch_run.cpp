// The minimum finder's cycle work handed out in batches (batch_run.h).
//
// Start points: a cycle draws at least (50 - samples kept) more points before
// it can stop, so drawing that many ahead never moves the generator past the
// one-process search.
#include "minfinder/batch_run.h"

#include <algorithm>
#include <cstring>

namespace LxOpt {
namespace LxMinfinder {

unsigned long LxMinfinderImpl::BatchRun::FillSamples(Workspace& w, bool& ok) {
  LxMinfinderImpl& f = finder_;
  ok = true;
  unsigned long draws = 0;
  while (f.samples_.getNumPoints() < kSamplesPerCycle && draws < f.maxSample_) {
    const unsigned long ahead =
        std::min(kSamplesPerCycle - f.samples_.getNumPoints(), f.maxSample_ - draws);
    batchX_.clear();
    bool generatorFailed = false;
    for (unsigned long k = 0; k < ahead; ++k) {
      if (!f.DrawStartPoint(w.x)) {
        generatorFailed = true;
        break;
      }
      ++draws;
      // As IsItValidPointVer2: a point in an ellipsoid is refused unevaluated.
      if (!f.minima_.IsItInAnyEllipsoid(w.x.data()))
        batchX_.insert(batchX_.end(), w.x.begin(), w.x.end());
    }
    const std::size_t count = batchX_.size() / n();
    batchF_.resize(count);
    batchG_.resize(count * n());
    if (count > 0 && !batch_.Evaluate(batchX_.data(), count, batchF_.data(), batchG_.data())) {
      ok = false;
      return draws;
    }
    for (std::size_t j = 0; j < count; ++j) {
      std::copy_n(batchX_.data() + j * n(), n(), w.x.begin());
      std::copy_n(batchG_.data() + j * n(), n(), w.g.begin());
      const double value = batchF_[j];
      if (f.fvalSampleMin_ < value && value < f.fvalSampleMax_ &&
          f.GradientToSamplesCriterion(w.x.data(), w.g.data()))
        f.samples_.addPoint(w.x, value, w.g, f.lower_, f.upper_);
    }
    if (generatorFailed) {
      ok = false;
      return draws;
    }
  }
  return draws;
}

bool LxMinfinderImpl::BatchRun::OptimizeSamples() {
  const std::size_t count = finder_.samples_.getNumPoints();
  localZ_.resize(count * n());
  localF_.resize(count);
  localFz_.resize(count);
  localGz_.resize(count * n());
  planFirst_.assign(count, kNoPlan);
  planPoints_.clear();
  planValues_.clear();
  if (count == 0) return true;
  aheadEngine_ = finder_.engine_;
  aheadNext_ = 0;
  return batch_.OptimizeAndPlan(finder_.samples_.PointData(0), count, localZ_.data(),
                                localF_.data(), localFz_.data(), localGz_.data(), *this);
}

double LxMinfinderImpl::BatchRun::TakeResult(unsigned long sample, Workspace& w) const {
  std::copy_n(localZ_.data() + sample * n(), n(), w.z.begin());
  std::copy_n(localGz_.data() + sample * n(), n(), w.g.begin());
  return localF_[sample];
}

std::size_t LxMinfinderImpl::BatchRun::PlanAhead(std::size_t done) {
  PlanSamples(aheadNext_, done, aheadEngine_);
  aheadNext_ = std::max(aheadNext_, done);
  return planValues_.size();
}

double LxMinfinderImpl::BatchRun::NeighbourValue(unsigned long sample, unsigned int k,
                                                 const double* point) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (planFirst_[sample] != kNoPlan) {
      const std::size_t at = planFirst_[sample] + k;
      if (std::memcmp(planPoints_.data() + at * n(), point, n() * sizeof(double)) == 0)
        return planValues_[at];
    }
    if (attempt == 0 && !Replan(sample)) break;
  }
  // Only a failed batch gets here (a plan made from planEngine_ holds the
  // point); the search then ends.
  failed_ = true;
  return 0.0;
}

bool LxMinfinderImpl::BatchRun::ExpectsValidation(std::size_t j) const {
  return !RmsGradientAbove(localGz_.data() + j * n(), n(), kMinimumRmsGradient) &&
         !finder_.minima_.IsItInAnyEllipsoid(finder_.samples_.PointData(j));
}

void LxMinfinderImpl::BatchRun::PlanSamples(std::size_t from, std::size_t to, MtRng& engine) {
  const unsigned int neighbours = NeighbourCount(n());
  for (std::size_t j = from; j < to; ++j) {
    if (!ExpectsValidation(j)) continue;
    std::size_t at = planPoints_.size();
    planFirst_[j] = at / n();
    planPoints_.resize(at + neighbours * n());
    for (unsigned int k = 0; k < neighbours; ++k, at += n())
      DrawNeighbour(localZ_.data() + j * n(), n(), finder_.uniform_, engine,
                    planPoints_.data() + at);
  }
  planValues_.resize(planPoints_.size() / n());
}

bool LxMinfinderImpl::BatchRun::Replan(unsigned long sample) {
  MtRng engine = planEngine_;
  std::fill(planFirst_.begin(), planFirst_.end(), kNoPlan);
  planPoints_.clear();
  // The sample being validated is among them: it passed the same tests.
  PlanSamples(sample, planFirst_.size(), engine);
  if (batch_.Values(planPoints_.data(), planValues_.size(), planValues_.data())) return true;
  std::fill(planFirst_.begin(), planFirst_.end(), kNoPlan);
  return false;
}

}  // namespace LxMinfinder
}  // namespace LxOpt
