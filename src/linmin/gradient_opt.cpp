// The settings and the owned line minimizer of the conjugate-gradient and
// quasi-Newton optimizers.
#include "lxopt/linmin.h"

namespace LxOpt {

LxGradientOpt::LxGradientOpt(LxLineMinimize* lineMinimize) : lineMinimize_(lineMinimize) {}

LxGradientOpt::LxGradientOpt(const LxGradientOpt& other)
    : LxOptimizer1(other),
      iterLimit_(other.iterLimit_),
      tolerance_(other.tolerance_),
      lineMinimize_(other.lineMinimize_->CreateCopy()) {}

LxGradientOpt& LxGradientOpt::operator=(const LxGradientOpt& other) {
  if (this != &other) {
    iterLimit_ = other.iterLimit_;
    tolerance_ = other.tolerance_;
    lineMinimize_.reset(other.lineMinimize_->CreateCopy());
  }
  return *this;
}

LxGradientOpt::~LxGradientOpt() = default;

bool LxGradientOpt::SetLineMinimize(const LxLineMinimize& lm) {
  lineMinimize_.reset(lm.CreateCopy());
  return true;
}

}  // namespace LxOpt
