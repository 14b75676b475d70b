// Global minimum search: the minimum finder that samples a box, optimizes
// locally from each accepted start point and keeps the distinct minima it
// finds, and the batches that can take its work elsewhere. The start-point
// generators and the sample store have their own headers, included here.
//
// The notices of the finder (the minima table, "No minimums!") go to
// std::cerr, one line each; errors go to LxThrow.
#ifndef LXOPT_MINFINDER_H
#define LXOPT_MINFINDER_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "lxopt/function.h"
#include "lxopt/host.h"
#include "lxopt/lxopt_export.h"
#include "lxopt/minfinder_generators.h"
#include "lxopt/minfinder_samples.h"
#include "lxopt/optimizer.h"
#include "lxopt/quasinewton.h"
#include "lxopt/steepest.h"

namespace LxOpt {
namespace LxMinfinder {

// ------------------------------------------------------------- batches

class LxMinfinderImpl;

// Offered to a batch's OptimizeAndPlan: the neighbours that the cycle's
// validations will need, drawn ahead as local optimizations complete, so that
// their values can be computed while other optimizations still run.
class LXOPT_API LxMinfinderPlanner {
 public:
  virtual ~LxMinfinderPlanner();
  // With the answers of items 0 .. done - 1 written to OptimizeAndPlan's
  // outputs, draws the neighbours of those not drawn yet; returns how many
  // neighbour points there are now (earlier ones keep their numbers).
  virtual std::size_t PlanAhead(std::size_t done) = 0;
  // Neighbour point i (n doubles), i below PlanAhead's last answer.
  virtual const double* Point(std::size_t i) const = 0;
  // The objective's value at neighbour point i.
  virtual void SetValue(std::size_t i, double value) = 0;
};

// The work of a search that never touches its bookkeeping: objective values
// and local optimizations at given points. A search given a batch (SetBatch)
// hands this work out in batches, for instance to other processes, and
// applies the answers in the order and with the arithmetic of the
// one-process search, so its minima are the same bit for bit provided every
// answer is exactly what the objective and LxMinfinderImpl::LocalOptimizeFrom
// give at that point. Points are n doubles each, one after another. Each
// operation returns false when the work could not be done; the search then
// ends with false.
class LXOPT_API LxMinfinderBatch {
 public:
  virtual ~LxMinfinderBatch();
  // Out: f[i] and g[i n ...] the value and gradient at point i (the gradient
  // buffer zeroed before the objective is called).
  virtual bool Evaluate(const double* x, std::size_t count, double* f, double* g) = 0;
  // Out: z[i n ...] and f[i] the local optimization from start point i
  // (LocalOptimizeFrom); fz[i] and gz[i n ...] the value and gradient at z
  // (as Evaluate).
  virtual bool Optimize(const double* x, std::size_t count, double* z, double* f, double* fz,
                        double* gz) = 0;
  // Out: f[i] the value at point i.
  virtual bool Values(const double* x, std::size_t count, double* f) = 0;
  // Optimize, free to use planner on the way; before it returns it must have
  // set the value of every point planner handed out. By default Optimize.
  virtual bool OptimizeAndPlan(const double* x, std::size_t count, double* z, double* f, double* fz,
                               double* gz, LxMinfinderPlanner& planner);
};

// ------------------------------------------------------------- finder

// The search. Per Optimize call:
//  1. First minimum (on every call, added to the minima kept from earlier
//     calls without a duplicate test): draw start points
//     until one has FvalSampleMin < f < FvalSampleMax, pre-optimize it with
//     steepest descent (at most 10 iterations), then BFGS; repeat until the
//     result passes the minima value range, the objective's
//     CheckVariablesValidity of the START point and the minima store's box
//     check.
//     WARNING: this loop has no bound of its own. An objective whose local
//     minima all fail those tests (e.g. all outside the box, or all of value
//     >= FvalMinimaMax) or whose value is never inside the sample window keeps
//     it drawing for ever. Make sure at least one minimum can pass.
//  2. Cycles: draw up to MaxSample points, keeping those outside every known
//     minimum's ellipsoid that pass the gradient criterion and the sample
//     value window, until 50 are kept; optimize each (skipping those that
//     fell into an ellipsoid meanwhile), validate the result (RMS gradient
//     <= 0.001, no lower random neighbour), then match it with a stored
//     minimum or add it. A result is a new minimum when it is valid, has
//     FvalMinimaMin < f < FvalMinimaMax and f <= lowest + FvalMinimaWindow,
//     its start point passes CheckVariablesValidity, it lies in the box and
//     it matches no stored minimum: through func.IsRedundant with
//     KeepDegenerateStates, otherwise by value within SamePointTolerance (so
//     by default minima of equal value merge). A match widens the matched
//     minimum's ellipsoid.
// The search ends when a cycle needs all MaxSample draws, when the minima
// store holds MaxNumOptPoints minima, when more than
// ThresholdNumberOfNoChange local optimizations in a row of unproductive
// cycles found nothing new, or after a cycle in which a minimum was added
// past the time limit (the clock is read only when a minimum is added).
class LXOPT_API LxMinfinderImpl {
 public:
  static constexpr unsigned long kSamplesPerCycle = 50;
  static constexpr unsigned int kPreOptIterLimit = 10;
  static constexpr double kMinimumRmsGradient = 0.001;
  static constexpr double kNeighbourSpread = 0.01;  // neighbour offsets in [-0.005, 0.005)
  static constexpr unsigned int kMinNeighbours = 10;
  static constexpr double kGradientCriterionLimit = -0.01;

  // Defaults as given with each setter; not set up.
  LxMinfinderImpl();

  // Each setter returns true; each getter returns the current setting.
  // Draws per cycle (default 1000); a cycle that needs them all ends the
  // search.
  bool SetMaxSample(unsigned long value) {
    maxSample_ = value;
    return true;
  }
  unsigned long GetMaxSample() const { return maxSample_; }
  // Ends the search when more than this many local optimizations in a row
  // found nothing new (default 500).
  bool SetThresholdNumberOfNoChange(unsigned long value) {
    noChangeThreshold_ = value;
    return true;
  }
  unsigned long GetThresholdNumberOfNoChange() const { return noChangeThreshold_; }
  // Ends the search once the minima store holds this many (default 1000).
  bool SetMaxNumOptPoints(unsigned long value) {
    maxNumOptPoints_ = value;
    return true;
  }
  unsigned long GetMaxNumOptPoints() const { return maxNumOptPoints_; }
  // Same-point tolerance (default 0.01): per variable for the stores and
  // the value or IsRedundant tolerance when matching minima. Stored only;
  // the stores receive it at Setup.
  bool SetSamePointTolerance(double value) {
    samePointTolerance_ = value;
    return true;
  }
  double GetSamePointTolerance() const { return samePointTolerance_; }
  // Sample window: a start point is kept only when FvalSampleMin < f <
  // FvalSampleMax (strict; defaults -/+ the largest double).
  bool SetFvalSampleMax(double value) {
    fvalSampleMax_ = value;
    return true;
  }
  double GetFvalSampleMax() const { return fvalSampleMax_; }
  bool SetFvalSampleMin(double value) {
    fvalSampleMin_ = value;
    return true;
  }
  double GetFvalSampleMin() const { return fvalSampleMin_; }
  // Minima range: a result is a minimum only when FvalMinimaMin < f <
  // FvalMinimaMax (strict; defaults -/+ the largest double).
  bool SetFvalMinimaMax(double value) {
    fvalMinimaMax_ = value;
    return true;
  }
  double GetFvalMinimaMax() const { return fvalMinimaMax_; }
  bool SetFvalMinimaMin(double value) {
    fvalMinimaMin_ = value;
    return true;
  }
  double GetFvalMinimaMin() const { return fvalMinimaMin_; }
  // A new minimum needs f <= lowest + window; GetMinimums returns those
  // strictly within it (default 25.0).
  bool SetFvalMinimaWindow(double value) {
    fvalMinimaWindow_ = value;
    return true;
  }
  double GetFvalMinimaWindow() const { return fvalMinimaWindow_; }
  // Hours of wall-clock time (default 6.0), checked when a minimum is added.
  bool SetTimeLimit(double hours) {
    timeLimit_ = hours;
    return true;
  }
  double GetTimeLimit() const { return timeLimit_; }
  // Local optimization tolerance (default 1e-8); returns true.
  // Also the BFGS tolerance (squared gradient norm); the steepest-descent
  // pre-optimizer keeps its 1e-8.
  bool SetLocalOptTolerance(double value);
  double GetLocalOptTolerance() const { return localOptTolerance_; }
  // Local optimization iteration limit (default 200); returns true.
  // Also the BFGS iteration limit.
  bool SetLocalOptMaxIter(unsigned int value);
  unsigned int GetLocalOptMaxIter() const { return localOptMaxIter_; }
  // Whether a new minimum must lie in the box (default true); handed to the
  // minima store at each Optimize.
  bool SetCheckMinimumInRange(bool value) {
    checkMinimumInRange_ = value;
    return true;
  }
  bool GetCheckMinimumInRange() const { return checkMinimumInRange_; }
  // Whether minima are matched through func.IsRedundant (true) or by value
  // (false, the default; equal values merge).
  bool SetKeepDegenerateStates(bool value) {
    keepDegenerateStates_ = value;
    return true;
  }
  bool GetKeepDegenerateStates() const { return keepDegenerateStates_; }
  // Reseeds the engine of the neighbour draws (5489 unless this is called)
  // and the start-point generator: the one set up now and any given to a
  // later Setup. Without a call the generator keeps its own seed. Returns true.
  bool SetSeed(std::uint32_t seed);

  // Borrows func and generator (both must outlive the searches); they are
  // taken first, so a failed Setup replaces them too. Errors, each leaving
  // the bounds and stores of the previous setup in place and returning false:
  //   n = 0: "numVar=0 in Setup function of the LxMinfinderImpl! Please set
  //          up your scoring function!"
  //   bounds of the wrong length: "Dimension of lower and upper bound vectors
  //          should be equal to the number of variables of the scoring
  //          function!"
  //   lower_i >= upper_i: "The values of lower bounds should be obviously
  //          lower than the upper bounds!"
  bool Setup(LxFunc1& func, GetRandomVariables* generator, const std::vector<double>& lower,
             const std::vector<double>& upper);
  // Runs the search described above, first minimum included; minima of
  // earlier calls are kept and new ones added. False before Setup, or when a
  // failed Setup left an objective whose number of variables is not that of
  // the set-up bounds ("You have to setup the minfinder object first!"), or
  // when the generator fails (its error, then this call ends); true otherwise.
  bool Optimize();
  // The minima within FvalMinimaWindow (strictly) of the lowest, in ascending
  // order of value: coords gets n values per minimum, values one each. No
  // minima ("No minimums!") or a window <= 0 ("No minimums within the given
  // window!"): the notice to std::cerr, both outputs emptied, false.
  bool GetMinimums(std::vector<double>& coords, std::vector<double>& values) const;
  // Every minimum in stored order to std::cerr: index, "   " before each
  // coordinate and before the value; "No minimums yet!" when there is none.
  void PrintMinimums() const;

  // Whether z is a true minimum: RMS gradient sqrt(sum g^2 / n) <= 0.001
  // (grad receives the gradient at z) and none of max(10, 2n) random
  // neighbours z_i + (u - 0.5) 0.01 is lower. n = 0: false.
  bool ValidateMinimum(double* grad, const double* x);
  // Whether x may start a local optimization: outside every minimum's
  // ellipsoid (else false without evaluating), and with value (written, as is
  // grad) strictly inside the sample window and the gradient criterion met.
  bool IsItValidPointVer2(double* grad, double& value, const double* x);
  // Refuses x (false) when some sample point k with the same nearest minimum
  // has sum_d (x_d - x_k,d)(g_d - g_k,d) < -0.01: the gradient turns against
  // the segment, so x and x_k are not in one convex basin. Holds with no
  // samples or fewer than 2 minima.
  bool GradientToSamplesCriterion(const double* x, const double* grad) const;
  // True when x is not in the Rt ellipsoid of any sample / any minimum.
  bool EllipsoidRtToSamplePointsCriterion(const double* x);
  bool EllipsoidRtToMinimumPointsCriterion(const double* x);

  // Hands the work of the cycles (not of the first minimum) to batch
  // (borrowed; null, the default, does it here one point at a time). The
  // minima do not depend on it.
  void SetBatch(LxMinfinderBatch* batch) { batch_ = batch; }
  // The two-stage local optimization of the search: steepest descent (at most
  // 10 iterations) from x into y, then BFGS from y into z with this finder's
  // settings. Returns the BFGS value. func need not be the one set up.
  double LocalOptimizeFrom(LxFunc1& func, const double* x, double* y, double* z);

  // Whether Setup has succeeded.
  bool IsSetUp() const { return setUp_; }
  // The sample store of the current cycle and the minima store.
  MinfinderSamplePoints& GetSamples() { return samples_; }
  const MinfinderSamplePoints& GetSamples() const { return samples_; }
  MinfinderSamplePoints& GetMinima() { return minima_; }
  const MinfinderSamplePoints& GetMinima() const { return minima_; }

 private:
  // The buffers of one Optimize call (src/minfinder/minfinder_internal.h).
  struct Workspace;
  // A cycle's work handed to the batch, with the neighbours of the
  // validations planned ahead (src/minfinder/batch_run.h).
  class BatchRun;
  // Whether the objective has the number of variables of the set-up bounds
  // (a failed Setup may have left another).
  bool ObjectiveFitsSetup() const;
  bool DrawStartPoint(std::vector<double>& x);
  bool FindFirstMinimum(Workspace& w);
  unsigned long FillSamples(Workspace& w, bool& ok);
  double LocalOptimize(Workspace& w);
  bool EvaluateAndValidate(double* grad, const double* x, double* neighbour);
  bool IsMinimumAt(const double* grad, const double* x, double f, double* neighbour, BatchRun* run,
                   unsigned long sample);
  unsigned long NearestMinimum(const double* x) const;
  unsigned long CachedNearestMinimum(unsigned long sample) const;

  bool setUp_ = false;
  bool checkMinimumInRange_ = true;
  bool keepDegenerateStates_ = false;
  unsigned int localOptMaxIter_ = 200;
  unsigned long maxSample_ = 1000;
  unsigned long noChangeThreshold_ = 500;
  unsigned long maxNumOptPoints_ = 1000;
  double samePointTolerance_ = 0.01;
  double localOptTolerance_ = 1e-8;
  double fvalSampleMax_ = std::numeric_limits<double>::max();
  double fvalSampleMin_ = -std::numeric_limits<double>::max();
  double fvalMinimaMax_ = std::numeric_limits<double>::max();
  double fvalMinimaMin_ = -std::numeric_limits<double>::max();
  double fvalMinimaWindow_ = 25.0;
  double timeLimit_ = 6.0;
  std::vector<double> lower_;
  std::vector<double> upper_;
  LxBFGSOpt localOpt_;
  LxSteepestDescentOpt preOpt_;
  LxFunc1* func_ = nullptr;
  GetRandomVariables* generator_ = nullptr;
  MinfinderSamplePoints samples_;
  MinfinderSamplePoints minima_;
  MtRng engine_{5489u};
  bool seeded_ = false;  // SetSeed was called: Setup seeds the generator
  std::uint32_t seed_ = 0;
  LxUniformDoubleRNG uniform_{0.0, 1.0};
  LxMinfinderBatch* batch_ = nullptr;

  // Nearest minimum of each sample point, valid while neither store has
  // changed its existing points and the minima store has not grown.
  mutable std::vector<unsigned long> nearestCache_;
  mutable std::uint64_t cacheSamplesGeneration_ = 0;
  mutable std::uint64_t cacheMinimaGeneration_ = 0;
  mutable unsigned long cacheMinimaCount_ = 0;
};

// Does the work of a batch here, one point after another, with finder's
// local optimizers (its settings) on func. Both are borrowed.
class LXOPT_API LxMinfinderLocalBatch : public LxMinfinderBatch {
 public:
  LxMinfinderLocalBatch(LxMinfinderImpl& finder, LxFunc1& func) : finder_(finder), func_(func) {}
  bool Evaluate(const double* x, std::size_t count, double* f, double* g) override;
  bool Optimize(const double* x, std::size_t count, double* z, double* f, double* fz,
                double* gz) override;
  bool Values(const double* x, std::size_t count, double* f) override;

 private:
  LxMinfinderImpl& finder_;
  LxFunc1& func_;
};

// The public front: owns one LxMinfinderImpl and forwards every call to it.
class LXOPT_API LxMinfinder {
 public:
  // Owns a default LxMinfinderImpl; not copyable.
  LxMinfinder();
  ~LxMinfinder();
  LxMinfinder(const LxMinfinder&) = delete;
  LxMinfinder& operator=(const LxMinfinder&) = delete;

  // The settings: each forwards to LxMinfinderImpl's member of the same name
  // (same meaning, default and result).
  bool SetMaxSample(unsigned long value) { return impl_->SetMaxSample(value); }
  unsigned long GetMaxSample() const { return impl_->GetMaxSample(); }
  bool SetThresholdNumberOfNoChange(unsigned long value) {
    return impl_->SetThresholdNumberOfNoChange(value);
  }
  unsigned long GetThresholdNumberOfNoChange() const {
    return impl_->GetThresholdNumberOfNoChange();
  }
  bool SetMaxNumOptPoints(unsigned long value) { return impl_->SetMaxNumOptPoints(value); }
  unsigned long GetMaxNumOptPoints() const { return impl_->GetMaxNumOptPoints(); }
  bool SetSamePointTolerance(double value) { return impl_->SetSamePointTolerance(value); }
  double GetSamePointTolerance() const { return impl_->GetSamePointTolerance(); }
  bool SetFvalSampleMax(double value) { return impl_->SetFvalSampleMax(value); }
  double GetFvalSampleMax() const { return impl_->GetFvalSampleMax(); }
  bool SetFvalSampleMin(double value) { return impl_->SetFvalSampleMin(value); }
  double GetFvalSampleMin() const { return impl_->GetFvalSampleMin(); }
  bool SetFvalMinimaMax(double value) { return impl_->SetFvalMinimaMax(value); }
  double GetFvalMinimaMax() const { return impl_->GetFvalMinimaMax(); }
  bool SetFvalMinimaMin(double value) { return impl_->SetFvalMinimaMin(value); }
  double GetFvalMinimaMin() const { return impl_->GetFvalMinimaMin(); }
  bool SetFvalMinimaWindow(double value) { return impl_->SetFvalMinimaWindow(value); }
  double GetFvalMinimaWindow() const { return impl_->GetFvalMinimaWindow(); }
  bool SetTimeLimit(double hours) { return impl_->SetTimeLimit(hours); }
  double GetTimeLimit() const { return impl_->GetTimeLimit(); }
  bool SetLocalOptTolerance(double value) { return impl_->SetLocalOptTolerance(value); }
  double GetLocalOptTolerance() const { return impl_->GetLocalOptTolerance(); }
  bool SetLocalOptMaxIter(unsigned int value) { return impl_->SetLocalOptMaxIter(value); }
  unsigned int GetLocalOptMaxIter() const { return impl_->GetLocalOptMaxIter(); }
  bool SetCheckMinimumInRange(bool value) { return impl_->SetCheckMinimumInRange(value); }
  bool GetCheckMinimumInRange() const { return impl_->GetCheckMinimumInRange(); }
  bool SetKeepDegenerateStates(bool value) { return impl_->SetKeepDegenerateStates(value); }
  bool GetKeepDegenerateStates() const { return impl_->GetKeepDegenerateStates(); }
  bool SetSeed(std::uint32_t seed) { return impl_->SetSeed(seed); }

  // See LxMinfinderImpl. WARNING: every Optimize call first draws start
  // points without limit until it has a minimum; it never returns for an
  // objective none of whose minima passes the value ranges, the validity test
  // and the box.
  bool Setup(LxFunc1& func, GetRandomVariables* generator, const std::vector<double>& lower,
             const std::vector<double>& upper) {
    return impl_->Setup(func, generator, lower, upper);
  }
  // Optimize, GetMinimums and PrintMinimums as in LxMinfinderImpl.
  bool Optimize() { return impl_->Optimize(); }
  bool GetMinimums(std::vector<double>& coords, std::vector<double>& values) const {
    return impl_->GetMinimums(coords, values);
  }
  void PrintMinimums() const { impl_->PrintMinimums(); }

  // The implementation, for its checks and stores; never null.
  LxMinfinderImpl* GetImpl() { return impl_.get(); }
  const LxMinfinderImpl* GetImpl() const { return impl_.get(); }

 private:
  std::unique_ptr<LxMinfinderImpl> impl_;
};

}  // namespace LxMinfinder
}  // namespace LxOpt

#endif  // LXOPT_MINFINDER_H
