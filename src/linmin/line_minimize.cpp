// The line-minimizer base.
#include "lxopt/linmin.h"

namespace LxOpt {

LxLineMinimize::~LxLineMinimize() = default;

bool LxLineMinimize::SetMaxStep(unsigned int /*n*/, double* /*maxstep*/) {
  return false;
}

}  // namespace LxOpt
