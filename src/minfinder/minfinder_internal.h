// Shared by the search and its batch path: the buffers of one Optimize call
// and the arithmetic of ValidateMinimum's neighbour test.
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
// pre-optimized point y, the local minimum z and the validation's neighbour.
struct LxMinfinderImpl::Workspace {
  explicit Workspace(std::size_t n) : x(n), g(n), y(n), z(n), neighbour(n) {}
  std::vector<double> x, g, y, z, neighbour;
};

// sqrt(sum g^2 / n) > limit.
inline bool RmsGradientAbove(const double* g, std::size_t n, double limit) {
  return std::sqrt(LxOpt::detail::SquaredNorm(g, n) / static_cast<double>(n)) > limit;
}

// max(10, 2n) neighbours.
inline unsigned int NeighbourCount(std::size_t n) {
  return static_cast<unsigned int>(std::max<std::size_t>(LxMinfinderImpl::kMinNeighbours, 2 * n));
}

// One neighbour of z into out: out_i = z_i + (u - 0.5) 0.01, one uniform draw
// u in [0, 1) from engine per variable, in order. The validation and the
// plans of its neighbours all draw through here.
inline void DrawNeighbour(const double* z, std::size_t n, const LxUniformDoubleRNG& uniform,
                          MtRng& engine, double* out) {
  for (std::size_t i = 0; i < n; ++i)
    out[i] = z[i] + (uniform(engine) - 0.5) * LxMinfinderImpl::kNeighbourSpread;
}

}  // namespace LxMinfinder
}  // namespace LxOpt

#endif  // LXOPT_MINFINDER_INTERNAL_H
