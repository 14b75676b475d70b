// The minimum finder with its cycle's work handed out in batches: the
// evaluations of the drawn start points, the local optimizations of the
// samples and the neighbour values of ValidateMinimum. The bookkeeping stays
// here, in the order of the one-process search, so the minima are the same.
//
// Start points: a cycle draws at least (50 - samples kept) more points before
// it can stop, so drawing that many ahead never moves the generator past the
// one-process search. Neighbours: they come from the finder's engine, whose
// position depends on every earlier validation; the plan draws them ahead
// from a copy, and a planned value is used only for a point equal bit for bit
// to the one the engine gives, so a wrong guess costs work, never results.
#include <algorithm>
#include <cstring>

#include "framework/internal.h"
#include "lxopt/minfinder.h"
#include "minfinder/minfinder_internal.h"

namespace LxOpt {
namespace LxMinfinder {

LxMinfinderBatch::~LxMinfinderBatch() = default;
LxMinfinderPlanner::~LxMinfinderPlanner() = default;

bool LxMinfinderBatch::OptimizeAndPlan(const double* x, std::size_t count, double* z, double* f,
                                       double* fz, double* gz, LxMinfinderPlanner&) {
  return Optimize(x, count, z, f, fz, gz);
}

// Draws ahead from the engine as it stands before the cycle's validations,
// for the samples expected to be validated (as PlanNeighbours does), in
// sample order as their local results arrive.
class LxMinfinderImpl::AheadPlanner : public LxMinfinderPlanner {
 public:
  explicit AheadPlanner(LxMinfinderImpl& finder) : finder_(finder) {
    finder_.aheadEngine_ = finder_.engine_;
    finder_.aheadNext_ = 0;
  }
  std::size_t PlanAhead(std::size_t done) override {
    LxMinfinderImpl& f = finder_;
    const std::size_t n = f.lower_.size();
    const unsigned int neighbours = NeighbourCount(n);
    for (; f.aheadNext_ < done; ++f.aheadNext_) {
      const std::size_t j = f.aheadNext_;
      if (RmsGradientAbove(f.localGz_.data() + j * n, n, kMinimumRmsGradient) ||
          f.minima_.IsItInAnyEllipsoid(f.samples_.PointData(j)))
        continue;
      f.planFirst_[j] = f.planPoints_.size() / n;
      const double* z = f.localZ_.data() + j * n;
      for (unsigned int k = 0; k < neighbours; ++k)
        for (std::size_t i = 0; i < n; ++i)
          f.planPoints_.push_back(NeighbourCoordinate(z[i], f.uniform_(f.aheadEngine_)));
    }
    f.planValues_.resize(f.planPoints_.size() / n);
    return f.planValues_.size();
  }
  const double* Point(std::size_t i) const override {
    return finder_.planPoints_.data() + i * finder_.lower_.size();
  }
  void SetValue(std::size_t i, double value) override { finder_.planValues_[i] = value; }

 private:
  LxMinfinderImpl& finder_;
};

unsigned long LxMinfinderImpl::FillSamplesInBatches(Workspace& w, bool& ok) {
  ok = true;
  const std::size_t n = lower_.size();
  unsigned long draws = 0;
  while (samples_.getNumPoints() < kSamplesPerCycle && draws < maxSample_) {
    const unsigned long ahead =
        std::min(kSamplesPerCycle - samples_.getNumPoints(), maxSample_ - draws);
    batchX_.clear();
    bool generatorFailed = false;
    for (unsigned long k = 0; k < ahead; ++k) {
      if (!DrawStartPoint(w.x)) {
        generatorFailed = true;
        break;
      }
      ++draws;
      // As IsItValidPointVer2: a point in an ellipsoid is refused unevaluated.
      if (!minima_.IsItInAnyEllipsoid(w.x.data()))
        batchX_.insert(batchX_.end(), w.x.begin(), w.x.end());
    }
    const std::size_t count = n == 0 ? 0 : batchX_.size() / n;
    batchF_.resize(count);
    batchG_.resize(count * n);
    if (count > 0 && !batch_->Evaluate(batchX_.data(), count, batchF_.data(), batchG_.data())) {
      ok = false;
      return draws;
    }
    for (std::size_t j = 0; j < count; ++j) {
      std::copy_n(batchX_.data() + j * n, n, w.x.begin());
      std::copy_n(batchG_.data() + j * n, n, w.g.begin());
      const double f = batchF_[j];
      if (fvalSampleMin_ < f && f < fvalSampleMax_ &&
          GradientToSamplesCriterion(w.x.data(), w.g.data()))
        samples_.addPoint(w.x, f, w.g, lower_, upper_);
    }
    if (generatorFailed) {
      ok = false;
      return draws;
    }
  }
  return draws;
}

bool LxMinfinderImpl::OptimizeSamplesInBatch() {
  const std::size_t n = lower_.size();
  const std::size_t count = samples_.getNumPoints();
  localZ_.resize(count * n);
  localF_.resize(count);
  localFz_.resize(count);
  localGz_.resize(count * n);
  planFirst_.assign(count, kNoPlan);
  planPoints_.clear();
  planValues_.clear();
  if (count == 0) return true;
  AheadPlanner planner(*this);
  return batch_->OptimizeAndPlan(samples_.PointData(0), count, localZ_.data(), localF_.data(),
                                 localFz_.data(), localGz_.data(), planner);
}

// Puts sample's local minimum into w.z and the gradient there into w.g;
// returns the local optimizer's value.
double LxMinfinderImpl::TakeBatchResult(unsigned long sample, Workspace& w) {
  const std::size_t n = lower_.size();
  std::copy_n(localZ_.data() + sample * n, n, w.z.begin());
  std::copy_n(localGz_.data() + sample * n, n, w.g.begin());
  return localF_[sample];
}

// The value at neighbour_, the k-th neighbour of sample; from the plan when it
// holds that very point, else from a new plan made from planEngine_.
double LxMinfinderImpl::NeighbourValue(unsigned long sample, unsigned int k) {
  const std::size_t n = lower_.size();
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (planFirst_[sample] != kNoPlan) {
      const std::size_t at = planFirst_[sample] + k;
      if (std::memcmp(planPoints_.data() + at * n, neighbour_.data(), n * sizeof(double)) == 0)
        return planValues_[at];
    }
    if (attempt == 0 && !PlanNeighbours(sample)) break;
  }
  // Only a failed batch gets here (a plan made from planEngine_ holds the
  // point); the search then ends.
  batchFailed_ = true;
  return 0.0;
}

// Draws the neighbours of sample and of every later sample expected to be
// validated (outside every ellipsoid now and with a small gradient at its
// local minimum) from a copy of planEngine_, and has the batch evaluate them.
bool LxMinfinderImpl::PlanNeighbours(unsigned long sample) {
  const std::size_t n = lower_.size();
  const std::size_t count = planFirst_.size();
  const unsigned int neighbours = NeighbourCount(n);
  MtRng engine = planEngine_;
  std::fill(planFirst_.begin(), planFirst_.end(), kNoPlan);
  planPoints_.clear();
  for (std::size_t j = sample; j < count; ++j) {
    const double* z = localZ_.data() + j * n;
    if (j != sample && (RmsGradientAbove(localGz_.data() + j * n, n, kMinimumRmsGradient) ||
                        minima_.IsItInAnyEllipsoid(samples_.PointData(j))))
      continue;
    planFirst_[j] = planPoints_.size() / n;
    for (unsigned int k = 0; k < neighbours; ++k)
      for (std::size_t i = 0; i < n; ++i)
        planPoints_.push_back(NeighbourCoordinate(z[i], uniform_(engine)));
  }
  planValues_.resize(planPoints_.size() / n);
  if (batch_->Values(planPoints_.data(), planValues_.size(), planValues_.data())) return true;
  std::fill(planFirst_.begin(), planFirst_.end(), kNoPlan);
  return false;
}

// ------------------------------------------------------------- local batch

bool LxMinfinderLocalBatch::Evaluate(const double* x, std::size_t count, double* f, double* g) {
  const std::size_t n = func_.NumVar();
  for (std::size_t i = 0; i < count; ++i) {
    detail::Zero(g + i * n, n);
    f[i] = func_(x + i * n, g + i * n);
  }
  return true;
}

bool LxMinfinderLocalBatch::Optimize(const double* x, std::size_t count, double* z, double* f,
                                     double* fz, double* gz) {
  const std::size_t n = func_.NumVar();
  y_.resize(n);
  for (std::size_t i = 0; i < count; ++i) {
    f[i] = finder_.LocalOptimizeFrom(func_, x + i * n, y_.data(), z + i * n);
    detail::Zero(gz + i * n, n);
    fz[i] = func_(z + i * n, gz + i * n);
  }
  return true;
}

bool LxMinfinderLocalBatch::Values(const double* x, std::size_t count, double* f) {
  const std::size_t n = func_.NumVar();
  for (std::size_t i = 0; i < count; ++i) f[i] = func_(x + i * n);
  return true;
}

}  // namespace LxMinfinder
}  // namespace LxOpt
