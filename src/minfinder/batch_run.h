// A search's cycle work handed to its batch (LxMinfinderImpl::SetBatch) for
// one Optimize call: the evaluations of the drawn start points, the local
// optimizations of the samples and the neighbour values of ValidateMinimum.
// The bookkeeping stays with the finder, in the order of the one-process
// search, so the minima are the same.
//
// Neighbours come from the finder's engine, whose position depends on every
// earlier validation. The plan draws them ahead from a copy of the engine,
// for the samples expected to be validated, and a planned value is used only
// for a point equal bit for bit to the one the engine gives; otherwise the
// plan is made again from the engine as it stood before the sample's first
// neighbour. A wrong guess costs work, never results.
#ifndef LXOPT_MINFINDER_BATCH_RUN_H
#define LXOPT_MINFINDER_BATCH_RUN_H

#include <cstddef>
#include <vector>

#include "lxopt/minfinder.h"
#include "minfinder/minfinder_internal.h"

namespace LxOpt {
namespace LxMinfinder {

// Also the planner offered to the batch's OptimizeAndPlan: it draws ahead
// from the engine as it stands before the cycle's validations, in sample
// order as the local results arrive.
class LxMinfinderImpl::BatchRun : public LxMinfinderPlanner {
 public:
  BatchRun(LxMinfinderImpl& finder, LxMinfinderBatch& batch) : finder_(finder), batch_(batch) {}

  // FillSamples with the start points evaluated in batches.
  unsigned long FillSamples(Workspace& w, bool& ok);
  // The local optimizations of every sample, neighbours planned on the way.
  bool OptimizeSamples();
  // Puts sample's local minimum into w.z and the gradient there into w.g;
  // returns the local optimizer's value.
  double TakeResult(unsigned long sample, Workspace& w) const;
  // The objective's value at sample's local minimum.
  double ValueAtMinimum(unsigned long sample) const { return localFz_[sample]; }
  // To be called before sample's first neighbour is drawn.
  void StartValidation() { planEngine_ = finder_.engine_; }
  // The value at point, neighbour k of sample as just drawn; 0 and Failed()
  // when the batch failed.
  double NeighbourValue(unsigned long sample, unsigned int k, const double* point);
  bool Failed() const { return failed_; }

  std::size_t PlanAhead(std::size_t done) override;
  const double* Point(std::size_t i) const override { return planPoints_.data() + i * n(); }
  void SetValue(std::size_t i, double value) override { planValues_[i] = value; }

 private:
  static constexpr std::size_t kNoPlan = static_cast<std::size_t>(-1);

  std::size_t n() const { return finder_.lower_.size(); }
  // Whether sample j is expected to be validated: a small gradient at its
  // local minimum and its start outside every ellipsoid now.
  bool ExpectsValidation(std::size_t j) const;
  // Appends the neighbours of samples from .. to - 1 expected to be
  // validated, drawn from engine.
  void PlanSamples(std::size_t from, std::size_t to, MtRng& engine);
  // Plans sample and the later samples anew from planEngine_ and has the
  // batch evaluate them.
  bool Replan(unsigned long sample);

  LxMinfinderImpl& finder_;
  LxMinfinderBatch& batch_;
  bool failed_ = false;
  std::vector<double> batchX_, batchF_, batchG_;             // one Evaluate batch
  std::vector<double> localZ_, localF_, localFz_, localGz_;  // the cycle's local results
  MtRng planEngine_;                    // the engine before the current sample's neighbours
  MtRng aheadEngine_;                   // the engine as drawn ahead by PlanAhead
  std::size_t aheadNext_ = 0;           // the next sample PlanAhead looks at
  std::vector<std::size_t> planFirst_;  // per sample: first planned neighbour, or kNoPlan
  std::vector<double> planPoints_, planValues_;
};

}  // namespace LxMinfinder
}  // namespace LxOpt

#endif  // LXOPT_MINFINDER_BATCH_RUN_H
