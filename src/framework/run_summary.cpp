// The run summary: which states mean convergence, and the recorder that
// fills a summary from the reports of a run.
#include <cmath>

#include "framework/internal.h"
#include "framework/run_record.h"

namespace LxOpt {

bool LxStateMeansConvergence(unsigned int state) {
  switch (state) {
    case kLxNoOpt:
    case kLxDist:
    case kLxFval:
    case kLxGrad:
    case kLxComp:
    case kLxDone:
      return true;
    default:
      return false;
  }
}

const LxRunSummary& LxOptimizer1::LastRun() const {
  static const LxRunSummary kNone;
  return kNone;
}

const LxRunSummary& LxOptimizer2::LastRun() const {
  static const LxRunSummary kNone;
  return kNone;
}

namespace detail {

bool RunRecorder::operator()(unsigned int iter, unsigned int nvar, double fval, double gnorm,
                             const double* vars, const double* grad, unsigned int state) {
  const bool answer = Report(next_, iter, nvar, fval, gnorm, vars, grad, state);
  reported_ = true;
  const bool closingDone = state == kLxDone && lastState_ != kLxCont && !refusedCont_;
  if (state != kLxCont && !closingDone) {
    deciding_.state = state;
    deciding_.iterations = iter;
    deciding_.stoppedByCheckpoint = state == kLxDone && refusedCont_;
    if (grad != nullptr) {
      double sum = 0.0, largest = 0.0;
      for (unsigned int i = 0; i < nvar; ++i) {
        sum += grad[i] * grad[i];
        largest = std::fmax(largest, std::fabs(grad[i]));
      }
      deciding_.gradientNorm = std::sqrt(sum);
      deciding_.gradientMax = largest;
    } else {
      deciding_.gradientNorm = gnorm;
      deciding_.gradientMax = std::nan("");
    }
  }
  refusedCont_ = honoursStop_ && state == kLxCont && !answer;
  lastState_ = state;
  lastIter_ = iter;
  lastNorm_ = gnorm;
  return answer;
}

LxRunSummary RunRecorder::Summary(double value, std::uint64_t evaluations) const {
  LxRunSummary s;
  if (lastState_ != kLxCont) {
    s = deciding_;
  } else if (reported_) {
    // Ended after a per-iteration report: silently, or by a failure.
    s.state = silentState_;
    s.iterations = lastIter_;
    s.gradientNorm = lastNorm_;
  } else {
    s.state = silentState_;
  }
  s.value = value;
  s.evaluations = evaluations;
  s.converged = LxStateMeansConvergence(s.state) && !s.stoppedByCheckpoint;
  return s;
}

}  // namespace detail
}  // namespace LxOpt
