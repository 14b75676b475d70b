// Settings and the owned line minimizer of the conjugate-gradient optimizers.
#include "lxopt/conjgrad.h"

namespace LxOpt {

LxConjGradBase::LxConjGradBase() : lineMinimize_(new LxCGLineMinimize()) {}

LxConjGradBase::LxConjGradBase(const LxConjGradBase& other)
    : LxOptimizer1(other),
      iterLimit_(other.iterLimit_),
      tolerance_(other.tolerance_),
      lineMinimize_(other.lineMinimize_->CreateCopy()) {}

LxConjGradBase& LxConjGradBase::operator=(const LxConjGradBase& other) {
  if (this != &other) {
    iterLimit_ = other.iterLimit_;
    tolerance_ = other.tolerance_;
    lineMinimize_.reset(other.lineMinimize_->CreateCopy());
  }
  return *this;
}

LxConjGradBase::~LxConjGradBase() = default;

bool LxConjGradBase::SetLineMinimize(const LxLineMinimize& lm) {
  lineMinimize_.reset(lm.CreateCopy());
  return true;
}

}  // namespace LxOpt
