// The batch interfaces of the minimum finder and the batch that does the work
// here, one point after another.
#include "framework/internal.h"
#include "lxopt/minfinder.h"

namespace LxOpt {
namespace LxMinfinder {

LxMinfinderBatch::~LxMinfinderBatch() = default;
LxMinfinderPlanner::~LxMinfinderPlanner() = default;

bool LxMinfinderBatch::OptimizeAndPlan(const double* x, std::size_t count, double* z, double* f,
                                       double* fz, double* gz, LxMinfinderPlanner&) {
  return Optimize(x, count, z, f, fz, gz);
}

bool LxMinfinderLocalBatch::Evaluate(const double* x, std::size_t count, double* f, double* g) {
  const std::size_t n = func_.NumVar();
  for (std::size_t i = 0; i < count; ++i) {
    detail::Zero(g + i * n, n);
    f[i] = func_(x + i * n, g + i * n);
  }
  return true;
}

bool LxMinfinderLocalBatch::Optimize(const double* x, std::size_t count, double* z, double* f,
                                     double* fz, double* gz) {
  const std::size_t n = func_.NumVar();
  std::vector<double> y(n);  // the pre-optimized point
  for (std::size_t i = 0; i < count; ++i) {
    f[i] = finder_.LocalOptimizeFrom(func_, x + i * n, y.data(), z + i * n);
    detail::Zero(gz + i * n, n);
    fz[i] = func_(z + i * n, gz + i * n);
  }
  return true;
}

bool LxMinfinderLocalBatch::Values(const double* x, std::size_t count, double* f) {
  const std::size_t n = func_.NumVar();
  for (std::size_t i = 0; i < count; ++i) f[i] = func_(x + i * n);
  return true;
}

}  // namespace LxMinfinder
}  // namespace LxOpt
