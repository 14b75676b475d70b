// Random rigid-body poses: a uniformly distributed unit quaternion followed
// by uniform values in the box.
//
// The quaternion is Shoemake's subgroup algorithm (K. Shoemake, "Uniform
// random rotations", Graphics Gems III, 1992): with u, t1, t2 uniform,
//   q = (sqrt(1-u) sin 2pi t1, sqrt(1-u) cos 2pi t1, sqrt(u) sin 2pi t2, sqrt(u) cos 2pi t2).
#include <cmath>
#include <cstdlib>

#include "lxopt/minfinder_generators.h"

namespace LxOpt {
namespace {

constexpr double kRandScale = 2147483647.0;
constexpr double kTwoPi = 6.283185307179586;
constexpr std::size_t kQuaternionSize = 4;

}  // namespace

// 2 pi u; the rand() form keeps its own order of operations.
double LxRandomPosOrient::TwoPiTimesUniform() {
  return ownEngineQuaternion_ ? kTwoPi * NextUniform() : kTwoPi * std::rand() / kRandScale;
}

bool LxRandomPosOrient::operator()(double* x, const std::vector<double>& lower,
                                   const std::vector<double>& upper) {
  if (lower.size() != upper.size() || lower.empty()) {
    LxThrow.Error("Dimension of lower and upper bound vectors should be equal!");
    return false;
  }
  // Deliberate: by default the orientation comes from the process-wide rand()
  // (seeded by the application), the remaining variables from this object's
  // own engine.
  const double u = ownEngineQuaternion_ ? NextUniform() : std::rand() / kRandScale;
  const double theta1 = TwoPiTimesUniform();
  const double theta2 = TwoPiTimesUniform();
  const double a = std::sqrt(1.0 - u), b = std::sqrt(u);
  x[0] = a * std::sin(theta1);
  x[1] = a * std::cos(theta1);
  x[2] = b * std::sin(theta2);
  x[3] = b * std::cos(theta2);
  if (x[0] < 0.0)
    for (std::size_t i = 0; i < kQuaternionSize; ++i) x[i] = -x[i];

  // The bounds of the quaternion are never read.
  for (std::size_t i = kQuaternionSize; i < lower.size(); ++i)
    x[i] = lower[i] + NextUniform() * (upper[i] - lower[i]);
  return true;
}

}  // namespace LxOpt
