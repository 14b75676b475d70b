// Default bodies of the coordinate objective.
#include "lxopt/coordfunc.h"

namespace LxOpt {

std::vector<LxFComponent> LxCoordFunc1::GetFComponents(const double* x) {
  return {{Name(), (*this)(x)}};
}

}  // namespace LxOpt
