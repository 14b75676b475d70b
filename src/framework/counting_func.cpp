// LxCountingFunc: forwards to the wrapped objective, counting calls and their
// wall time, and optionally replaces non-finite values.
#include <chrono>
#include <cmath>
#include <limits>

#include "lxopt/host.h"
#include "lxopt/tools.h"

namespace LxOpt {
namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

}  // namespace

LxCountingFunc::LxCountingFunc(LxFunc0& func) : f0_(func), f1_(nullptr), f2_(nullptr) {}
LxCountingFunc::LxCountingFunc(LxFunc1& func) : f0_(func), f1_(&func), f2_(nullptr) {}
LxCountingFunc::LxCountingFunc(LxFunc2& func) : f0_(func), f1_(&func), f2_(&func) {}

unsigned int LxCountingFunc::NumVar() const {
  return f0_.NumVar();
}

double LxCountingFunc::Guard(double value, const double* x) {
  if (!guard_ || std::isfinite(value)) return value;
  if (nonFinite_++ == 0) firstNonFinite_.assign(x, x + f0_.NumVar());
  return std::numeric_limits<double>::max();
}

double LxCountingFunc::operator()(const double* x) {
  ++values_;
  const Clock::time_point t0 = Clock::now();
  const double f = f0_(x);
  valueSeconds_ += SecondsSince(t0);
  return Guard(f, x);
}

double LxCountingFunc::operator()(const double* x, double* grad) {
  if (f1_ == nullptr) {
    LxThrow.Error("LxCountingFunc: the wrapped objective has no gradient");
    return 0.0;
  }
  ++gradients_;
  const Clock::time_point t0 = Clock::now();
  const double f = (*f1_)(x, grad);
  gradientSeconds_ += SecondsSince(t0);
  return Guard(f, x);
}

bool LxCountingFunc::operator()(const double* x, double* hessian, double* grad) {
  if (f2_ == nullptr) {
    LxThrow.Error("LxCountingFunc: the wrapped objective has no Hessian");
    return false;
  }
  ++hessians_;
  const Clock::time_point t0 = Clock::now();
  const bool ok = (*f2_)(x, hessian, grad);
  hessianSeconds_ += SecondsSince(t0);
  return ok;
}

std::vector<double> LxCountingFunc::operator()(float** blocks) {
  if (f1_ == nullptr) return LxFunc1::operator()(blocks);
  ++values_;
  const Clock::time_point t0 = Clock::now();
  std::vector<double> values = (*f1_)(blocks);
  valueSeconds_ += SecondsSince(t0);
  return values;
}

std::vector<LxFComponent> LxCountingFunc::GetFComponents(const double* x) {
  return f0_.GetFComponents(x);
}

bool LxCountingFunc::CheckVariablesValidity(const double* x) {
  return f1_ != nullptr ? f1_->CheckVariablesValidity(x) : LxFunc1::CheckVariablesValidity(x);
}

bool LxCountingFunc::IsRedundant(const double* a, const double* b, double tolerance) const {
  return f1_ != nullptr ? f1_->IsRedundant(a, b, tolerance) : LxFunc1::IsRedundant(a, b, tolerance);
}

void LxCountingFunc::Reset() {
  values_ = gradients_ = hessians_ = nonFinite_ = 0;
  valueSeconds_ = gradientSeconds_ = hessianSeconds_ = 0.0;
  firstNonFinite_.clear();
}

}  // namespace LxOpt
