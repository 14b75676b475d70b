// Default bodies of the objective interfaces.
#include <cmath>

#include "lxopt/function.h"
#include "lxopt/host.h"

namespace LxOpt {

LxFunc0::~LxFunc0() = default;

std::vector<double> LxFunc1::operator()(float** /*blocks*/) {
  LxThrow.Error("This is a GPU-specific method and should only be called from the derived class.");
  return {};
}

bool LxFunc1::CheckVariablesValidity(const double* /*x*/) {
  return true;
}

bool LxFunc1::IsRedundant(const double* a, const double* b, double tolerance) const {
  if (tolerance <= 0.0) {
    LxThrow.Error("Tolerance should have positive value in the IsRedundant function!");
    return true;
  }
  const unsigned int n = NumVar();
  double sum = 0.0;
  for (unsigned int i = 0; i < n; ++i) {
    const double d = a[i] - b[i];
    sum += d * d;
  }
  // With n = 0 this is 0/0: not a number, and so never redundant.
  return std::sqrt(sum / n) < tolerance;
}

}  // namespace LxOpt
