// LxBudgetCheckpoint: chains to another checkpoint and asks the run to stop
// once an evaluation or wall-time budget is spent.
#include "lxopt/tools.h"

namespace LxOpt {

LxBudgetCheckpoint::LxBudgetCheckpoint(LxCheckpoint1* next)
    : next_(next), start_(std::chrono::steady_clock::now()) {}

void LxBudgetCheckpoint::SetEvaluationBudget(const LxCountingFunc& counted, std::uint64_t limit) {
  counted_ = &counted;
  evaluationLimit_ = limit;
}

void LxBudgetCheckpoint::Restart() {
  start_ = std::chrono::steady_clock::now();
  exhausted_ = false;
}

bool LxBudgetCheckpoint::Spent() const {
  if (counted_ != nullptr && counted_->Total() >= evaluationLimit_) return true;
  if (seconds_ <= 0.0) return false;
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  return elapsed >= seconds_;
}

bool LxBudgetCheckpoint::Answer(bool nextAnswer, unsigned int state) {
  if (state != kLxCont || !Spent()) return nextAnswer;
  exhausted_ = true;
  return false;
}

bool LxBudgetCheckpoint::operator()(unsigned int iter, unsigned int nvar, double fval,
                                    const double* vars, unsigned int state) {
  const bool next = next_ == nullptr || (*next_)(iter, nvar, fval, vars, state);
  return Answer(next, state);
}

bool LxBudgetCheckpoint::operator()(unsigned int iter, unsigned int nvar, double fval, double gnorm,
                                    const double* vars, const double* grad, unsigned int state) {
  const bool next = next_ == nullptr || (*next_)(iter, nvar, fval, gnorm, vars, grad, state);
  return Answer(next, state);
}

}  // namespace LxOpt
