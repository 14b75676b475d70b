// The minimum finder: random start points in a box, a short steepest-descent
// run then BFGS from each, validation of the result as a true minimum, and a
// store of the distinct minima with ellipsoids around them (regions of
// attraction estimated from start -> minimum pairs) that keep later start
// points away from minima already known.
#include <algorithm>
#include <cmath>
#include <ctime>
#include <memory>

#include "framework/internal.h"
#include "lxopt/minfinder.h"
#include "minfinder/batch_run.h"
#include "minfinder/minfinder_internal.h"

namespace LxOpt {
namespace LxMinfinder {
namespace {

constexpr double kSecondsPerHour = 3600.0;

}  // namespace

LxMinfinderImpl::LxMinfinderImpl() {
  localOpt_.SetTolerance(localOptTolerance_);
  localOpt_.SetIterLimit(localOptMaxIter_);
  preOpt_.SetTolerance(localOptTolerance_);
  preOpt_.SetIterLimit(kPreOptIterLimit);
}

bool LxMinfinderImpl::SetLocalOptTolerance(double value) {
  localOptTolerance_ = value;
  localOpt_.SetTolerance(value);
  return true;
}

bool LxMinfinderImpl::SetLocalOptMaxIter(unsigned int value) {
  localOptMaxIter_ = value;
  localOpt_.SetIterLimit(value);
  return true;
}

bool LxMinfinderImpl::Setup(LxFunc1& func, GetRandomVariables* generator,
                            const std::vector<double>& lower, const std::vector<double>& upper) {
  // Taken before the checks: a failed Setup still replaces them, while the
  // bounds, the stores and the set-up state stay those of the earlier Setup.
  func_ = &func;
  generator_ = generator;
  if (seeded_ && generator_ != nullptr) generator_->Seed(seed_);
  const unsigned int n = func.NumVar();
  if (n == 0) {
    LxThrow.Error(
        "numVar=0 in Setup function of the LxMinfinderImpl! Please set up your scoring "
        "function!");
    return false;
  }
  if (lower.size() != n || upper.size() != lower.size()) {
    LxThrow.Error(
        "Dimension of lower and upper bound vectors should be equal to the number of variables "
        "of the scoring function!");
    return false;
  }
  for (unsigned int i = 0; i < n; ++i) {
    if (!(lower[i] < upper[i])) {
      LxThrow.Error("The values of lower bounds should be obviously lower than the upper bounds!");
      return false;
    }
  }
  lower_ = lower;
  upper_ = upper;
  samples_.Setup(n, samePointTolerance_);
  minima_.Setup(n, samePointTolerance_);
  setUp_ = true;
  return true;
}

bool LxMinfinderImpl::SetSeed(std::uint32_t seed) {
  seeded_ = true;
  seed_ = seed;
  engine_.Seed(seed);
  if (generator_ != nullptr) generator_->Seed(seed);
  return true;
}

double LxMinfinderImpl::LocalOptimizeFrom(LxFunc1& func, const double* x, double* y, double* z) {
  preOpt_(func, x, y);
  return localOpt_(func, y, z);
}

double LxMinfinderImpl::LocalOptimize(Workspace& w) {
  return LocalOptimizeFrom(*func_, w.x.data(), w.y.data(), w.z.data());
}

bool LxMinfinderImpl::DrawStartPoint(std::vector<double>& x) {
  if (samples_.GetRandomSamplePoint(x, lower_, upper_, generator_)) return true;
  LxThrow.Error("The random point generator failed; the minimum search ends!");
  return false;
}

bool LxMinfinderImpl::FindFirstMinimum(Workspace& w) {
  const std::size_t n = lower_.size();
  // Deliberate: unbounded (see the header); it ends only with a minimum.
  for (;;) {
    double f;
    do {
      if (!DrawStartPoint(w.x)) return false;
      detail::Zero(w.g.data(), n);
      f = (*func_)(w.x.data(), w.g.data());
    } while (!(fvalSampleMin_ < f && f < fvalSampleMax_));
    samples_.addPoint(w.x, f, w.g, lower_, upper_);

    f = LocalOptimize(w);
    // Written as negated "inside" tests so that a value that is not a number
    // fails too.
    if (!(f < fvalMinimaMax_) || !(f > fvalMinimaMin_)) continue;
    // Deliberate: validity is asked of the start point x, not of the minimum.
    if (!func_->CheckVariablesValidity(w.x.data())) continue;
    detail::Zero(w.g.data(), n);
    (*func_)(w.z.data(), w.g.data());  // the minimum is stored with its own gradient
    if (minima_.addPoint(w.z, f, w.g, lower_, upper_)) break;
  }
  minima_.updateMinima(w.x, w.z, 0);
  minima_.updateEllipsoidParemetersRt(w.x, w.z);
  samples_.updateEllipsoidParemetersRt(w.x, w.z);
  return true;
}

// Draws until the sample store holds 50 valid points or maxSample_ draws are
// made, and returns the number of draws; ok turns false when the generator
// fails.
unsigned long LxMinfinderImpl::FillSamples(Workspace& w, bool& ok) {
  ok = true;
  unsigned long draws = 0;
  while (samples_.getNumPoints() < kSamplesPerCycle && draws < maxSample_) {
    if (!DrawStartPoint(w.x)) {
      ok = false;
      return draws;
    }
    ++draws;
    double f;
    if (IsItValidPointVer2(w.g.data(), f, w.x.data()))
      samples_.addPoint(w.x, f, w.g, lower_, upper_);
  }
  return draws;
}

bool LxMinfinderImpl::ObjectiveFitsSetup() const {
  return func_ != nullptr && func_->NumVar() == lower_.size();
}

bool LxMinfinderImpl::Optimize() {
  // An objective left by a failed Setup that does not fit the bounds of the
  // earlier one cannot be searched: it would be handed arrays of another size.
  if (!setUp_ || !ObjectiveFitsSetup()) {
    LxThrow.Error("You have to setup the minfinder object first!");
    return false;
  }
  const std::time_t startTime = std::time(nullptr);
  minima_.SetCheckMinimumInRange(checkMinimumInRange_);
  Workspace w(lower_.size());
  std::unique_ptr<BatchRun> run;
  if (batch_ != nullptr) run = std::make_unique<BatchRun>(*this, *batch_);

  // Every call starts by securing one minimum, and adds it to any kept from
  // earlier calls.
  if (!FindFirstMinimum(w)) return false;

  unsigned long noChange = 0;
  unsigned long knownMinima = 1;
  bool timeUp = false;
  for (;;) {
    samples_.Clear();
    bool drawn = true;
    const unsigned long draws = run ? run->FillSamples(w, drawn) : FillSamples(w, drawn);
    if (!drawn) return false;
    // Deliberate: needing every draw ends the search even when the store
    // filled up on the last one.
    if (draws == maxSample_) return true;
    // With a batch every sample is optimized ahead; those the loop below
    // skips have their results dropped.
    if (run && !run->OptimizeSamples()) return false;

    unsigned long newMinima = knownMinima;
    unsigned long optimized = 0;
    for (unsigned long i = 0; i < samples_.getNumPoints(); ++i) {
      samples_.getX(w.x, i);
      samples_.getGrad(w.g, i);
      if (!minima_.IsItInAnyEllipsoid(w.x.data())) {
        const double f = run ? run->TakeResult(i, w) : LocalOptimize(w);
        ++optimized;
        minima_.updateEllipsoidParemetersRt(w.x, w.z);
        samples_.updateEllipsoidParemetersRt(w.x, w.z);
        // With a batch, w.g already holds the gradient at z.
        const bool valid = run ? IsMinimumAt(w.g.data(), w.z.data(), run->ValueAtMinimum(i),
                                             w.neighbour.data(), run.get(), i)
                               : EvaluateAndValidate(w.g.data(), w.z.data(), w.neighbour.data());
        if (run && run->Failed()) return false;
        // Deliberate: the objective judges the start point x, not the minimum.
        const bool inRange = func_->CheckVariablesValidity(w.x.data());
        const bool accept = valid && fvalMinimaMin_ < f && f < fvalMinimaMax_ &&
                            f <= minima_.getLowestValue() + fvalMinimaWindow_;
        unsigned long index = 0;
        const bool duplicate = minima_.haveItAlready(index, *func_, samePointTolerance_, w.z, f,
                                                     keepDegenerateStates_);
        if (duplicate || (accept && !inRange)) {
          // Deliberate: an accepted minimum from an invalid start that matches
          // nothing widens the ellipsoid of minimum 0 (index stays 0).
          if (accept) minima_.updateMinima(w.x, w.z, index);
        } else if (accept && minima_.addPoint(w.z, f, w.g, lower_, upper_)) {
          ++newMinima;
          minima_.updateMinima(w.x, w.z, minima_.getNumPoints() - 1);
          noChange = 0;
          // Deliberate: the clock is read only here, when a minimum is added; a
          // search that stops finding minima ends by the no-change count.
          if (std::difftime(std::time(nullptr), startTime) > timeLimit_ * kSecondsPerHour)
            timeUp = true;
        }
      }
      if (minima_.getNumPoints() >= maxNumOptPoints_) return true;
    }
    if (newMinima == knownMinima)
      noChange += optimized;
    else
      knownMinima = newMinima;
    if (noChange > noChangeThreshold_ || timeUp) return true;
  }
}

bool LxMinfinderImpl::ValidateMinimum(double* grad, const double* x) {
  if (!ObjectiveFitsSetup()) {
    LxThrow.Error("You have to setup the minfinder object first!");
    return false;
  }
  std::vector<double> neighbour(lower_.size());
  return EvaluateAndValidate(grad, x, neighbour.data());
}

// ValidateMinimum once the objective is known to fit the bounds.
bool LxMinfinderImpl::EvaluateAndValidate(double* grad, const double* x, double* neighbour) {
  detail::Zero(grad, lower_.size());
  const double f = (*func_)(x, grad);
  return IsMinimumAt(grad, x, f, neighbour, nullptr, 0);
}

// The tests of ValidateMinimum on the value f and gradient grad at x, each
// neighbour drawn into neighbour (n doubles); with run, the neighbours' values
// come from its plan for `sample`.
bool LxMinfinderImpl::IsMinimumAt(const double* grad, const double* x, double f, double* neighbour,
                                  BatchRun* run, unsigned long sample) {
  const std::size_t n = lower_.size();
  if (n == 0) return false;
  if (RmsGradientAbove(grad, n, kMinimumRmsGradient)) return false;
  if (run) run->StartValidation();
  // No neighbour within +-0.005 per variable may be lower.
  const unsigned int neighbours = NeighbourCount(n);
  for (unsigned int k = 0; k < neighbours; ++k) {
    DrawNeighbour(x, n, uniform_, engine_, neighbour);
    const double value = run ? run->NeighbourValue(sample, k, neighbour) : (*func_)(neighbour);
    if (value < f || (run && run->Failed())) return false;
  }
  return true;
}

}  // namespace LxMinfinder
}  // namespace LxOpt
