// The benchmark problem set: derivatives against central differences, and the known minima.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "../bench/problems/problem_set.h"
#include "lxopt/newton.h"

namespace {

using lxbench::Problem;
using Vec = std::vector<double>;

double MaxAbs(const Vec& v) {
  double m = 0.0;
  for (double e : v) m = std::max(m, std::fabs(e));
  return m;
}

// Away from the start along a fixed pattern, by a tenth of each variable's scale.
Vec SecondPoint(Vec x) {
  for (size_t i = 0; i < x.size(); ++i)
    x[i] += 0.1 * std::max(1.0, std::fabs(x[i])) * std::sin(1.0 + 3.0 * i);
  return x;
}

// Largest gap between d(i, j) = dy_i/dx_j and central differences beyond their rounding noise,
// relative to the largest derivative (at least 1).
double DifferenceError(const std::function<Vec(const Vec&)>& y, Vec x,
                       const std::function<double(size_t, size_t)>& d) {
  double worst = 0.0, scale = 1.0;
  for (size_t j = 0; j < x.size(); ++j) {
    const double xj = x[j], h = 1e-6 * std::max(1.0, std::fabs(xj));
    x[j] = xj + h;
    const Vec up = y(x);
    x[j] = xj - h;
    const Vec down = y(x);
    x[j] = xj;
    for (size_t i = 0; i < up.size(); ++i) {
      const double noise = 1e-15 * std::max(std::fabs(up[i]), std::fabs(down[i])) / h;
      worst = std::max(worst, std::fabs((up[i] - down[i]) / (2.0 * h) - d(i, j)) - noise);
      scale = std::max(scale, std::fabs(d(i, j)));
    }
  }
  return worst / scale;
}

class BenchProblems : public ::testing::TestWithParam<size_t> {
 protected:
  std::vector<std::unique_ptr<Problem>> set_ = lxbench::ProblemSet();
  Problem& p_ = *set_[GetParam()];
};

// Also: the start's size, both value forms and the Hessian call's gradient agree, and a
// closed-form minimizer has the known value and no slope.
TEST_P(BenchProblems, DerivativesMatchCentralDifferencesAndTheKnownMinimum) {
  const size_t n = p_.NumVar();
  ASSERT_EQ(p_.Start().size(), n);
  ASSERT_TRUE(p_.HasHessian());
  const auto value = [&](const Vec& x) { return Vec{p_(x.data())}; };
  const auto gradient = [&](const Vec& x) {
    Vec g(n, 0.0);
    return p_(x.data(), g.data()), g;
  };
  for (const Vec& x : {p_.Start(), SecondPoint(p_.Start())}) {
    const Vec g = gradient(x);
    Vec packed(n * (n + 1) / 2, 0.0), gh(n, 0.0);
    const double f = value(x)[0];
    ASSERT_TRUE(std::isfinite(f));
    EXPECT_NEAR(p_(x.data(), Vec(n, 0.0).data()), f, 1e-12 * std::max(1.0, std::fabs(f)));
    ASSERT_TRUE(p_(x.data(), packed.data(), gh.data()));
    for (size_t i = 0; i < n; ++i) EXPECT_NEAR(gh[i], g[i], 1e-12 * std::max(1.0, MaxAbs(g)));
    EXPECT_LT(DifferenceError(value, x, [&](size_t, size_t j) { return g[j]; }), 1e-6);
    const auto hessian = [&](size_t i, size_t j) {  // the full matrix from the lower triangle
      return packed[std::max(i, j) * (std::max(i, j) + 1) / 2 + std::min(i, j)];
    };
    EXPECT_LT(DifferenceError(gradient, x, hessian), 1e-6);
  }
  const Vec xstar = p_.Minimizer();  // empty unless known in closed form
  if (xstar.empty()) return;
  ASSERT_EQ(xstar.size(), n);
  EXPECT_NEAR(value(xstar)[0], p_.FStar(), 1e-10 * std::max(1.0, std::fabs(p_.FStar())));
  EXPECT_LT(MaxAbs(gradient(xstar)), 1e-6);
}

INSTANTIATE_TEST_SUITE_P(All, BenchProblems,
                         ::testing::Range<size_t>(0, lxbench::ProblemSet().size()),
                         [](const ::testing::TestParamInfo<size_t>& info) {
                           return lxbench::ProblemSet()[info.param]->Name();
                         });

// Numerically known minima: Newton from the start reaches the set's value, which matches the
// published digits (truncated: |value| lies within one last-digit unit above them).
TEST(BenchProblemSet, NumericalMinimaAreReachedAndMatchThePublishedDigits) {
  const struct {
    const char* name;
    double value, unit;
  } table[] = {
      {"mgh06_jennrich_sampson", 124.362, 1e-3},   {"mgh08_bard", 8.21487e-3, 1e-8},
      {"mgh09_gaussian", 1.12793e-8, 1e-13},       {"mgh10_meyer", 87.9458, 1e-4},
      {"mgh15_kowalik_osborne", 3.07505e-4, 1e-9}, {"mgh16_brown_dennis", 85822.2, 1e-1},
      {"mgh17_osborne1", 5.46489e-5, 1e-10},       {"mgh19_osborne2", 4.01377e-2, 1e-7},
      {"mgh20_watson", 2.28767e-3, 1e-8},          {"mgh23_penalty1", 7.08765e-5, 1e-10},
      {"mgh24_penalty2", 2.93660e-4, 1e-9},        {"mgh35_chebyquad", 3.51687e-3, 1e-8},
      {"lj13_cluster", -44.326801, 1e-6},
  };
  auto set = lxbench::ProblemSet();
  ASSERT_EQ(set.size(), 40u);  // names are unique: they name the parameterized tests
  for (const auto& e : table) {
    auto it =
        std::find_if(set.begin(), set.end(), [&](const auto& p) { return p->Name() == e.name; });
    ASSERT_NE(it, set.end()) << e.name;
    Problem& p = **it;
    const double excess = std::fabs(p.FStar()) - std::fabs(e.value);
    EXPECT_TRUE(excess >= 0.0 && excess < e.unit) << e.name << ": " << p.FStar();
    LxOpt::LxNewtonOpt newton;
    newton.SetIterLimit(1000);
    newton.SetTolerance(1e-9 / std::sqrt(double(p.NumVar())));
    Vec x(p.NumVar());
    newton(p, p.Start().data(), x.data());
    EXPECT_NEAR(p(x.data()), p.FStar(), std::max(1e-6, 1e-6 * std::fabs(p.FStar()))) << e.name;
  }
}

}  // namespace
