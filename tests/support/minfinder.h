// Test support for the minimum finder: two-variable objectives whose value
// comes with the gradient, and Himmelblau's function.
#ifndef LXOPT_TESTS_SUPPORT_MINFINDER_H
#define LXOPT_TESTS_SUPPORT_MINFINDER_H

#include <limits>
#include <vector>

#include "support/problems.h"

namespace lxtest {

// Two-variable objectives whose value comes with the gradient.
struct Objective2 : Objective {
  using Objective::operator();
  unsigned int NumVar() const override { return 2; }
  double operator()(const double* x) override {
    double g[2];
    return (*this)(x, g);
  }
};

// (x^2 + y - 11)^2 + (x + y^2 - 7)^2: four minima of value 0, a maximum and
// four saddles in [-5, 5]^2. Value and gradient are not numbers for x > hole.
struct Himmelblau : Objective2 {
  using Objective2::operator();
  double operator()(const double* x, double* g) override {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double a = x[0] * x[0] + x[1] - 11.0, b = x[0] + x[1] * x[1] - 7.0;
    g[0] = x[0] > hole ? nan : 4.0 * x[0] * a + 2.0 * b;
    g[1] = 2.0 * a + 4.0 * x[1] * b;
    return x[0] > hole ? nan : a * a + b * b;
  }
  double hole = 1e300;
};

}  // namespace lxtest

#endif  // LXOPT_TESTS_SUPPORT_MINFINDER_H
