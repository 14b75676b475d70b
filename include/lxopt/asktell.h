// Reverse communication: any gradient optimizer driven by a loop the caller
// owns. The caller asks for the next point, evaluates its objective there and
// tells the value and gradient back; programs that own their evaluation loop
// (quantum-chemistry codes, molecular-dynamics packages) can so use the
// library's steps.
//
//   LxAskTell run;
//   LxBFGSOptimizer opt;
//   run.Start(opt, x0, n);
//   while (const double* x = run.Ask()) {
//     double g[n];
//     double f = energy_and_gradient(x, g);
//     run.Tell(f, g);
//   }
//   // run.GetValue(), run.GetPoint(), run.GetState()
//
// The optimizer runs unchanged on a worker thread against an objective that
// hands every point it is asked to evaluate to Ask and waits for Tell, so a
// run asks for exactly the points a direct call of the same optimizer would
// evaluate, in the same order. Only one of the two threads works at a time:
// the worker while the caller waits in Ask, the caller between Ask and Tell.
// The checkpoint given to Start is called on the worker thread while the
// caller waits in Ask.
#ifndef LXOPT_ASKTELL_H
#define LXOPT_ASKTELL_H

#include <memory>

#include "lxopt/lxopt_export.h"
#include "lxopt/optimizer.h"

namespace LxOpt {

class LXOPT_API LxAskTell {
 public:
  LxAskTell();
  // Ends a run in progress as Reset does.
  ~LxAskTell();
  LxAskTell(const LxAskTell&) = delete;
  LxAskTell& operator=(const LxAskTell&) = delete;

  // Starts a run of optimizer from start (n values, copied), reporting to
  // checkpoint (may be null). Ends a run in progress first. The optimizer
  // and the checkpoint are borrowed until the run has finished or is reset;
  // neither may be used elsewhere meanwhile.
  void Start(LxOptimizer1& optimizer, const double* start, unsigned int n,
             LxCheckpoint1* checkpoint = nullptr);

  // Waits for the optimizer's next request and returns the point (n values,
  // valid until the next Tell, Start or Reset), or null once the run has
  // finished or when none was started. Asking again before telling returns
  // the same point. An exception that escaped the optimizer (thrown by the
  // checkpoint, or out of memory) is rethrown here, once.
  const double* Ask();
  // Whether the point waiting needs the gradient as well as the value; the
  // value-only requests (the geometry driver's final re-evaluation, for
  // one) leave the gradient unread.
  bool GradientWanted() const;
  // Supplies the value f and the gradient grad (n values; may be null when
  // no gradient is wanted) at the point the last Ask returned. False, taking
  // nothing, when no point is waiting or a wanted gradient is missing.
  bool Tell(double f, const double* grad);
  // Ends a run in progress: the optimizer's next request, or its finish,
  // ends the worker and the result is discarded. Nothing happens when idle.
  void Reset();

  // True once a started run has ended on its own (Ask returned null).
  bool Finished() const;
  // Of the finished run: the value the optimizer returned, its final point
  // (n values; null before a run finished), the last state and iteration it
  // reported to a checkpoint (kLxCont and 0 when it reported none). While a
  // run is in progress the state and iteration are those reported so far.
  double GetValue() const;
  const double* GetPoint() const;
  unsigned int GetState() const;
  unsigned int GetIterations() const;
  // Points asked for since Start.
  unsigned long GetEvaluations() const;
  // The optimizer's own summary of the finished run (see LxRunSummary); a
  // default summary while a run is in progress or after a Reset.
  LxRunSummary LastRun() const;
  // Number of variables of the current or last run.
  unsigned int NumVar() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace LxOpt

#endif  // LXOPT_ASKTELL_H
