// Helpers shared by the Newton runs: unpacking, the damping shift, the RMS
// gradient, the damping schedule and the iteration budget.
#include <algorithm>
#include <cmath>

#include "newton/newton_internal.h"

namespace LxOpt {
namespace detail {
namespace {

// Closer than this to the maximum counts as being at the maximum.
constexpr double kAtMaximumGap = 1e-10;
constexpr Eigen::Index kUnpackTile = 32;

}  // namespace

void UnpackSymmetric(const double* packed, Eigen::MatrixXd& h) {
  // Tile by tile, so that the writes along a row of h (stride n) stay within
  // a few cache lines instead of touching a new line each.
  const Eigen::Index n = h.rows();
  for (Eigen::Index i0 = 0; i0 < n; i0 += kUnpackTile) {
    const Eigen::Index i1 = std::min(n, i0 + kUnpackTile);
    for (Eigen::Index j0 = 0; j0 <= i0; j0 += kUnpackTile) {
      for (Eigen::Index i = i0; i < i1; ++i) {
        const double* row = packed + packed::RowStart(static_cast<std::size_t>(i));
        const Eigen::Index j1 = std::min(i + 1, j0 + kUnpackTile);
        for (Eigen::Index j = j0; j < j1; ++j) {
          h(j, i) = row[j];
          h(i, j) = row[j];
        }
      }
    }
  }
}

double AddDampingShift(double damping, Eigen::MatrixXd& h) {
  const Eigen::Index n = h.rows();
  if (n == 0) return 0.0;
  const double mu = damping * (1.0 + std::fabs(h.trace() / static_cast<double>(n)));
  h.diagonal().array() += mu;
  return mu;
}

double RmsGradient(const double* g, unsigned int n) {
  if (n == 0) return 1.0;
  double sum = 0.0;
  for (unsigned int i = 0; i < n; ++i) sum += g[i] * g[i];
  return std::sqrt(sum / n);
}

bool DampingSchedule::AtMaximum() const {
  return std::fabs(lambda_ - max_) < kAtMaximumGap;
}

void DampingSchedule::Raise() {
  lambda_ = std::min(lambda_ * increase_, max_);
}

void DampingSchedule::AfterAcceptedStep(bool repaired) {
  if (repaired) {
    Raise();
  } else {
    lambda_ = std::min(std::max(min_, lambda_ * decrease_), max_);
  }
}

bool IterationBudget::Extend(double rms, unsigned int iteration) {
  if (extended_ || !(rms < kExtendBelowRms)) return false;
  extended_ = true;
  end_ = iteration + kExtensionIterations;
  return true;
}

}  // namespace detail
}  // namespace LxOpt
