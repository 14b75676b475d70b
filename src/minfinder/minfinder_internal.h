// Shared by the search and its batch path: the search's working vectors and
// the arithmetic of ValidateMinimum's neighbour test.
#ifndef LXOPT_MINFINDER_INTERNAL_H
#define LXOPT_MINFINDER_INTERNAL_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "framework/internal.h"
#include "lxopt/minfinder.h"

namespace LxOpt {
namespace LxMinfinder {

// The vectors of one Optimize call: start x with its gradient g, the
// pre-optimized point y and the local minimum z.
struct LxMinfinderImpl::Workspace {
  explicit Workspace(std::size_t n) : x(n), g(n), y(n), z(n) {}
  std::vector<double> x, g, y, z;
};

// sqrt(sum g^2 / n) > limit.
inline bool RmsGradientAbove(const double* g, std::size_t n, double limit) {
  return std::sqrt(LxOpt::detail::SquaredNorm(g, n) / static_cast<double>(n)) > limit;
}

// max(10, 2n) neighbours.
inline unsigned int NeighbourCount(std::size_t n) {
  return static_cast<unsigned int>(std::max<std::size_t>(LxMinfinderImpl::kMinNeighbours, 2 * n));
}

// x_i + (u - 0.5) 0.01 for a uniform draw u in [0, 1).
inline double NeighbourCoordinate(double x, double u) {
  return x + (u - 0.5) * LxMinfinderImpl::kNeighbourSpread;
}

}  // namespace LxMinfinder
}  // namespace LxOpt

#endif  // LXOPT_MINFINDER_INTERNAL_H
