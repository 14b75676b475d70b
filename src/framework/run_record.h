// Fills an optimizer's LxRunSummary around one run: counts the objective's
// calls and watches the reports on their way to the caller's checkpoint.
#ifndef LXOPT_SRC_FRAMEWORK_RUN_RECORD_H
#define LXOPT_SRC_FRAMEWORK_RUN_RECORD_H

#include "lxopt/optimizer.h"
#include "lxopt/tools.h"

namespace LxOpt {
namespace detail {

// Passes every report on to the caller's checkpoint (or none) unchanged and
// remembers what the summary needs. Per-iteration reports cost O(1); only
// final states look at the gradient.
class RunRecorder : public LxCheckpoint1 {
 public:
  // honoursStop: whether the optimizer ends its run with Done when a
  // per-iteration report is answered false.
  RunRecorder(LxCheckpoint1* next, bool honoursStop) : next_(next), honoursStop_(honoursStop) {}

  using LxCheckpoint1::operator();
  bool operator()(unsigned int iter, unsigned int nvar, double fval, double gnorm,
                  const double* vars, const double* grad, unsigned int state) override;

  // For runs that end without a final report although they know how they
  // ended (the silent exits of the classic conjugate gradients).
  void SetSilentState(unsigned int state) { silentState_ = state; }

  // The summary of the run that returned `value` after `evaluations` calls.
  LxRunSummary Summary(double value, std::uint64_t evaluations) const;

 private:
  LxCheckpoint1* next_;
  bool honoursStop_;
  LxRunSummary deciding_;  // the deciding final report so far
  unsigned int lastState_ = kLxCont;
  unsigned int lastIter_ = 0;
  double lastNorm_ = 0.0;
  bool reported_ = false;     // any report at all
  bool refusedCont_ = false;  // the last report was a Cont answered false
  unsigned int silentState_ = kLxCont;
};

// Runs run(countedFunc, recorder) and stores its summary; returns its value.
// Func is LxFunc1 or LxFunc2; the run sees the counting wrapper. honoursStop
// as for RunRecorder.
template <class Func, class Run>
double RecordRun(LxRunSummary& summary, Func& func, LxCheckpoint1* checkpoint, bool honoursStop,
                 Run run) {
  summary = LxRunSummary{};
  LxCountingFunc counted(func);
  RunRecorder recorder(checkpoint, honoursStop);
  const double value = run(static_cast<Func&>(counted), &recorder);
  summary = recorder.Summary(value, counted.Total());
  return value;
}

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_FRAMEWORK_RUN_RECORD_H
