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

}  // namespace

void UnpackSymmetric(const double* packed, Eigen::MatrixXd& h) {
  const Eigen::Index n = h.rows();
  for (Eigen::Index i = 0; i < n; ++i) {
    const double* row = packed + i * (i + 1) / 2;
    for (Eigen::Index j = 0; j <= i; ++j) {
      h(j, i) = row[j];
      h(i, j) = row[j];
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

bool DampingSchedule::AtMaximum() const { return std::fabs(lambda_ - max_) < kAtMaximumGap; }

void DampingSchedule::Raise() { lambda_ = std::min(lambda_ * increase_, max_); }

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
