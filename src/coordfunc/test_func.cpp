// The chained curved-valley test objective, minimum 0 at (1, ..., 1).
#include "lxopt/coordfunc.h"

namespace LxOpt {

LxTestF::LxTestF(unsigned int n) : n_(new unsigned int(n)) {}

LxTestF::LxTestF(const LxTestF& other)
    : LxFunc0(other), LxFunc1(other), n_(new unsigned int(*other.n_)) {}

LxTestF& LxTestF::operator=(const LxTestF& other) {
  *n_ = *other.n_;
  return *this;
}

LxTestF::~LxTestF() = default;

// f = 4 (0.25 (x0 - 1)² + sum_{i>=1} (x_i - x_{i-1}²)²), factors applied as
// written and the sum taken in index order.
double LxTestF::operator()(const double* x) {
  const unsigned int n = *n_;
  double sum = 0.25 * (x[0] - 1.0) * (x[0] - 1.0);
  for (unsigned int i = 1; i < n; ++i) {
    const double d = x[i] - x[i - 1] * x[i - 1];
    sum += d * d;
  }
  return 4.0 * sum;
}

// df/dx0     = 2 (x0 - 1) - 16 x0 (x1 - x0²)
// df/dx_i    = 8 (x_i - x_{i-1}²) - 16 x_i (x_{i+1} - x_i²),  0 < i < n-1
// df/dx_{n-1} = 8 (x_{n-1} - x_{n-2}²)
double LxTestF::operator()(const double* x, double* grad) {
  const unsigned int n = *n_;
  grad[0] = 2.0 * (x[0] - 1.0) - 16.0 * x[0] * (x[1] - x[0] * x[0]);
  for (unsigned int i = 1; i + 1 < n; ++i)
    grad[i] = 8.0 * (x[i] - x[i - 1] * x[i - 1]) - 16.0 * x[i] * (x[i + 1] - x[i] * x[i]);
  grad[n - 1] = 8.0 * (x[n - 1] - x[n - 2] * x[n - 2]);
  return (*this)(x);
}

std::vector<LxFComponent> LxTestF::GetFComponents(const double* x) {
  return {{"Test function", (*this)(x)}};
}

}  // namespace LxOpt
