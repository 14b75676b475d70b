// The start-point generator interface and the uniform box generator.
#include "lxopt/minfinder_generators.h"

namespace LxOpt {
namespace LxMinfinder {

GetRandomVariables::~GetRandomVariables() = default;

bool GetRandomVariablesGeneral::operator()(double* x, const std::vector<double>& lower,
                                           const std::vector<double>& upper) {
  if (lower.size() != upper.size() || lower.empty()) {
    LxThrow.Error("Dimension of lower and upper bound vectors should be equal and at least 1!");
    return false;
  }
  for (std::size_t i = 0; i < lower.size(); ++i)
    x[i] = lower[i] + NextUniform() * (upper[i] - lower[i]);
  return true;
}

}  // namespace LxMinfinder
}  // namespace LxOpt
